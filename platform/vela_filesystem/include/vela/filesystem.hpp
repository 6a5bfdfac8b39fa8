#pragma once

// The whole host file-system layer in one include.
#include <vela/filesystem/directory_iterator.hpp>
#include <vela/filesystem/exceptions.hpp>
#include <vela/filesystem/file_status.hpp>
#include <vela/filesystem/fstream.hpp>
#include <vela/filesystem/operations.hpp>
#include <vela/filesystem/path.hpp>
#include <vela/filesystem/temp.hpp>
