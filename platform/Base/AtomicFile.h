#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string_view>

#include "platform/Base/FileDescriptor.h"
#include "platform/Base/Result.h"

namespace tallow {

// Whole-file reads and crash-safe whole-file writes. Error domain "File", code = errno.

// Reads a regular file of at most `maxBytes`. Never follows a final symbolic link and never blocks
// on a FIFO or device.
Result<Data> readFile(const std::filesystem::path& path, std::size_t maxBytes = 64u << 20);

// The same of a file that an administrator has put in place, who may well link to one that is kept
// elsewhere: links are followed.
Result<Data> readLinkedFile(const std::filesystem::path& path, std::size_t maxBytes);

// Whether an error of reading, or an errno, may pass although the file stays as it is: there are
// too many files open, or the disk, or the network that it is on, does not answer.
bool mayPass(const Error& error);
bool mayPass(int code);

// readFile() in two steps, for who has to look at the very file that is read: openToRead() gives no
// descriptor, and errno, where there is nothing to read; `path` is for messages.
FileDescriptor openToRead(const std::filesystem::path& path);
Result<Data> readFile(const FileDescriptor& file, const std::filesystem::path& path,
                      std::size_t maxBytes);

// Replaces the file: temporary file beside it (mode 0600), write, fsync, rename, fsync of the
// directory. At any moment, kill -9 and power cut included, the path holds the old or the new
// contents, whole. On failure the old contents stay and no temporary file is left behind.
std::optional<Error> writeFileAtomically(const std::filesystem::path& path, const Data& contents);

// Removes what a writeFileAtomically() in `folder` has left behind that was killed, or cut off by a
// power cut, where it needed a name: temporary files that nobody has written to for an hour.
void removeStaleTemporaryFiles(const std::filesystem::path& folder);

// Moves a damaged file aside under NAME.corrupt (NAME.corrupt.2, ... when taken), never deletes.
// Returns where it went.
Result<std::filesystem::path> setAsideAsCorrupt(const std::filesystem::path& path);

}  // namespace tallow
