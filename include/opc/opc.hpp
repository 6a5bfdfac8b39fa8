#pragma once

// Everything a user of opc-core needs, in one include.
#include <opc/CommitOptions.hpp>
#include <opc/Exception.hpp>
#include <opc/FileSystemOps.hpp>
