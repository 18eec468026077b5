// The platform layer's files: opening a file for binary writing, deciding whether every flush
// must also commit the file to disk, the stream operations the writer uses, and the input files
// of the readers (open, block reads, 64-bit positions). Foundation
// layer. The functions are thread-safe as the C runtime's stream functions are; the hook table is
// process-wide, and tests install it while no other thread uses the library.
//
// Commit-to-disk rule: a file that lies on a network file system is committed to disk at every
// flush, so that a reader on another machine, or after a crash of this one, finds what was
// flushed; a file on a local disk goes through the ordinary buffered path only. On Windows the
// runtime does the commit itself when the file is opened with mode "wbc"; elsewhere the writer
// calls CommitToDisk (fsync) after each flush of such a file.
#ifndef TARVEL_FOUNDATION_PLATFORM_FILE_H
#define TARVEL_FOUNDATION_PLATFORM_FILE_H

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace Tarvel::Platform {

// An output file opened by OpenOutputFile.
struct OutputFile {
    std::FILE* stream;  // null when the file could not be opened
    bool commitToDisk;  // true: follow every flush by CommitToDisk
};

// Opens `name` for binary writing (truncating it). The stream is null on failure. Owned by the
// caller, who closes it with CloseFile. Programs the host starts do not inherit it (the same
// holds for input files).
OutputFile OpenOutputFile(const char* name) noexcept;

// True when `name` lies on a network file system (see the rule above). On Windows a name without
// a drive letter, colon and backslash counts as remote. A folder that cannot be asked counts as
// local.
bool IsRemoteLocation(const char* name) noexcept;

// True when a file system with the statfs type number `magic` is reached over a network.
bool IsNetworkFileSystemType(std::uint64_t magic) noexcept;

// Makes what was flushed to `stream` durable (fsync). Returns false when the system refuses.
bool CommitToDisk(std::FILE* stream) noexcept;

// The stream operations of the writer. Each follows the C runtime's function of the same name,
// with 64-bit positions: WriteFile returns the number of bytes written; FlushFile, SeekFile and
// CloseFile return true on success; TellFile returns -1 on failure. SeekFile seeks from the start.
std::size_t WriteFile(const void* data, std::size_t size, std::FILE* stream) noexcept;
bool FlushFile(std::FILE* stream) noexcept;
std::int64_t TellFile(std::FILE* stream) noexcept;
bool SeekFile(std::FILE* stream, std::int64_t position) noexcept;
bool CloseFile(std::FILE* stream) noexcept;

// Replaces the text file `name` (mode "w") with `size` bytes of `text`, through the operations
// above; false when it cannot be made or written. The writer's error log is written this way.
bool WriteTextFile(const char* name, const char* text, std::size_t size) noexcept;

// Replaceable file operations for tests (a full disk, a failing seek, a forced network drive).
// Each null member keeps the runtime's behaviour for that operation. Return values follow the
// functions above.
struct FileHooks {
    std::FILE* (*open)(const char* name, const char* mode);
    bool (*isRemote)(const char* name);
    std::size_t (*write)(const void* data, std::size_t size, std::FILE* stream);
    bool (*flush)(std::FILE* stream);
    std::int64_t (*tell)(std::FILE* stream);
    bool (*seek)(std::FILE* stream, std::int64_t position);
    bool (*close)(std::FILE* stream);
    bool (*commit)(std::FILE* stream);
};
// Installs `hooks` (null restores the runtime). Returns the hooks installed before. The table
// must stay alive while installed.
const FileHooks* SetFileHooks(const FileHooks* hooks) noexcept;

// ---- Input files ------------------------------------------------------------------------------
// The readers' side: a file opened for binary reading and read in blocks, with 64-bit positions
// so that files beyond 2 GB work. These functions have their own hook table, so that a test can
// fake a short read or a failing seek of a reader without touching a writer's files.

// Opens `name` for binary reading ("rb"). Null on failure; the caller closes it with CloseInput.
std::FILE* OpenInputFile(const char* name) noexcept;
// Reads up to `size` bytes into `data` and returns how many arrived; fewer than asked is not an
// end by itself, 0 is the end of the file (or a read error).
std::size_t ReadInput(void* data, std::size_t size, std::FILE* stream) noexcept;
// The position of the next byte the stream gives, -1 on failure.
std::int64_t TellInput(std::FILE* stream) noexcept;
// Moves to `position` bytes from the start and clears the end-of-file state, so that a file that
// has grown since can be read on. False on failure (and for a negative position).
bool SeekInput(std::FILE* stream, std::int64_t position) noexcept;
// Closes the stream; false when the runtime reports an error (the stream is gone either way).
bool CloseInput(std::FILE* stream) noexcept;

// Replaceable input operations for tests; each null member keeps the runtime's behaviour.
struct InputFileHooks {
    std::FILE* (*open)(const char* name, const char* mode);
    std::size_t (*read)(void* data, std::size_t size, std::FILE* stream);
    std::int64_t (*tell)(std::FILE* stream);
    bool (*seek)(std::FILE* stream, std::int64_t position);
    bool (*close)(std::FILE* stream);
};
// Installs `hooks` (null restores the runtime) and returns the hooks installed before. The table
// must stay alive while installed.
const InputFileHooks* SetInputFileHooks(const InputFileHooks* hooks) noexcept;

}  // namespace Tarvel::Platform

#endif  // TARVEL_FOUNDATION_PLATFORM_FILE_H
