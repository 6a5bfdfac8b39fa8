#pragma once

// The whole storage layer in one include.
#include <stratum/storage/provider/FileAttributes.hpp>
#include <stratum/storage/provider/ItemKind.hpp>
#include <stratum/storage/provider/ReplacementPolicy.hpp>
#include <stratum/storage/vfs/Exception.hpp>
#include <stratum/storage/vfs/File.hpp>
#include <stratum/storage/vfs/IRI.hpp>
#include <stratum/storage/vfs/Operations.hpp>
#include <stratum/storage/vfs/StorageSystem.hpp>
#include <stratum/storage/vfs/Streams.hpp>
