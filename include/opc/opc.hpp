#pragma once

// Everything a user of opc-core needs, in one include.
#include <opc/Commit.hpp>
#include <opc/CommitOptions.hpp>
#include <opc/Exception.hpp>
#include <opc/FileSystemOps.hpp>
#include <opc/FileSystemOpsSelector.hpp>
#include <opc/LocalFileSystemOps.hpp>
#include <opc/Path.hpp>
#include <opc/Streams.hpp>
#include <opc/Text.hpp>
#include <opc/Time.hpp>
#include <opc/VirtualFileSystemOps.hpp>
#include <opc/util/Temp.hpp>
