// Files of the platform layer: output open mode, network-drive test, the writer's stream
// operations and the readers' input operations, each behind a replaceable hook table. Foundation
// layer. The hook pointers are swapped atomically.
#include "foundation/platform_file.h"

#include <atomic>
#include <cstring>

#if defined(_WIN32)
#  include <windows.h>
#else
#  include <fcntl.h>
#  include <unistd.h>
#  if defined(__linux__)
#    include <sys/vfs.h>
#  elif defined(__APPLE__) || defined(__FreeBSD__) || defined(__OpenBSD__) || defined(__NetBSD__)
#    include <sys/mount.h>
#    include <sys/param.h>
#  endif
#endif

namespace Tarvel::Platform {
namespace {

// The runtime's 64-bit stream positions.
std::int64_t RuntimeTell(std::FILE* stream) noexcept {
#if defined(_WIN32)
    return _ftelli64(stream);
#else
    return static_cast<std::int64_t>(ftello(stream));
#endif
}

bool RuntimeSeek(std::FILE* stream, std::int64_t position) noexcept {
    if (position < 0) return false;
#if defined(_WIN32)
    return _fseeki64(stream, position, SEEK_SET) == 0;
#else
    return fseeko(stream, static_cast<off_t>(position), SEEK_SET) == 0;
#endif
}

// The library's files are its own: a program the host starts must not inherit them (a child
// holding the writer's descriptor keeps the file open for writing after the writer closed it).
void KeepFromChildren(std::FILE* stream) noexcept {
#if defined(_WIN32)
    (void)stream;  // the runtime's handles are not inherited unless asked for
#else
    if (stream == nullptr) return;
    const int descriptor = fileno(stream);
    const int flags = fcntl(descriptor, F_GETFD);
    if (flags >= 0) fcntl(descriptor, F_SETFD, flags | FD_CLOEXEC);
#endif
}

}  // namespace

namespace {

std::atomic<const FileHooks*> g_fileHooks{nullptr};

const FileHooks* Hooks() noexcept { return g_fileHooks.load(std::memory_order_acquire); }

#if defined(_WIN32)

// "X:\" at the start of the name: the drive can be asked for its type.
bool HasDrivePart(const char* name) noexcept {
    const unsigned char letter = static_cast<unsigned char>(name[0]);
    const bool isLetter = (letter >= 'A' && letter <= 'Z') || (letter >= 'a' && letter <= 'z');
    return isLetter && name[1] == ':' && name[2] == '\\';
}

bool IsRemoteByRuntime(const char* name) noexcept {
    if (!HasDrivePart(name)) return true;
    const char root[4] = {name[0], ':', '\\', '\0'};
    return GetDriveTypeA(root) == DRIVE_REMOTE;
}

#else

// Longest folder name asked; a longer one counts as local (the commit is an optimisation of
// durability, not of correctness of the file's content).
constexpr std::size_t kMaxFolderName = 4096;

// Copies the folder part of `name` ("." when it has none) into `folder`.
bool FolderOf(const char* name, char (&folder)[kMaxFolderName]) noexcept {
    const char* slash = std::strrchr(name, '/');
    if (slash == nullptr) {
        std::strcpy(folder, ".");
        return true;
    }
    const std::size_t length = slash == name ? 1 : static_cast<std::size_t>(slash - name);
    if (length >= kMaxFolderName) return false;
    std::memcpy(folder, name, length);
    folder[length] = '\0';
    return true;
}

bool IsRemoteByRuntime(const char* name) noexcept {
    char folder[kMaxFolderName];
    if (!FolderOf(name, folder)) return false;
#  if defined(__linux__)
    struct statfs info {};
    if (statfs(folder, &info) != 0) return false;
    // Type numbers are 32-bit; f_type is a signed word whose width differs between systems.
    return IsNetworkFileSystemType(static_cast<std::uint32_t>(info.f_type));
#  elif defined(__APPLE__) || defined(__FreeBSD__) || defined(__OpenBSD__) || defined(__NetBSD__)
    struct statfs info {};
    if (statfs(folder, &info) != 0) return false;
    return (info.f_flags & MNT_LOCAL) == 0;
#  else
    return false;
#  endif
}

#endif

}  // namespace

bool IsNetworkFileSystemType(std::uint64_t magic) noexcept {
    switch (magic) {
        case 0x6969:      // NFS
        case 0x517B:      // SMB (smbfs)
        case 0xFF534D42:  // CIFS
        case 0xFE534D42:  // SMB2/SMB3 (cifs module)
        case 0x5346414F:  // AFS (OpenAFS)
        case 0x6B414653:  // AFS (kernel kAFS)
        case 0x01021997:  // 9P (v9fs)
        case 0x00C36400:  // Ceph
        case 0x0BD00BD0:  // Lustre
        case 0x73757245:  // Coda
        case 0x564C:      // NCP (NetWare)
        case 0x47504653:  // GPFS / Spectrum Scale
        case 0x20030528:  // OrangeFS / PVFS2
        case 0x19830326:  // BeeGFS
        // FUSE: GlusterFS, sshfs, s3fs and other network file systems mount through it, and its
        // type number cannot tell them from local FUSE file systems; the safe side is a commit.
        case 0x65735546:
            return true;
        default:
            return false;
    }
}

bool IsRemoteLocation(const char* name) noexcept {
    if (const FileHooks* hooks = Hooks(); hooks != nullptr && hooks->isRemote != nullptr) {
        return hooks->isRemote(name);
    }
    return IsRemoteByRuntime(name);
}

OutputFile OpenOutputFile(const char* name) noexcept {
    const bool remote = IsRemoteLocation(name);
#if defined(_WIN32)
    // The runtime's "c" commits at every fflush; no further call is needed.
    const char* mode = remote ? "wbc" : "wb";
    const bool commitAfterFlush = false;
#else
    // glibc reads "c" as "no cancellation point", so the commit is an explicit fsync.
    const char* mode = "wb";
    const bool commitAfterFlush = remote;
#endif
    const FileHooks* hooks = Hooks();
    std::FILE* stream = (hooks != nullptr && hooks->open != nullptr) ? hooks->open(name, mode)
                                                                     : std::fopen(name, mode);
    KeepFromChildren(stream);
    return OutputFile{stream, stream != nullptr && commitAfterFlush};
}

bool CommitToDisk(std::FILE* stream) noexcept {
    if (const FileHooks* hooks = Hooks(); hooks != nullptr && hooks->commit != nullptr) {
        return hooks->commit(stream);
    }
#if defined(_WIN32)
    (void)stream;
    return true;
#else
    return fsync(fileno(stream)) == 0;
#endif
}

std::size_t WriteFile(const void* data, std::size_t size, std::FILE* stream) noexcept {
    if (const FileHooks* hooks = Hooks(); hooks != nullptr && hooks->write != nullptr) {
        return hooks->write(data, size, stream);
    }
    return std::fwrite(data, 1, size, stream);
}

bool FlushFile(std::FILE* stream) noexcept {
    if (const FileHooks* hooks = Hooks(); hooks != nullptr && hooks->flush != nullptr) {
        return hooks->flush(stream);
    }
    return std::fflush(stream) == 0;
}

std::int64_t TellFile(std::FILE* stream) noexcept {
    if (const FileHooks* hooks = Hooks(); hooks != nullptr && hooks->tell != nullptr) {
        return hooks->tell(stream);
    }
    return RuntimeTell(stream);
}

bool SeekFile(std::FILE* stream, std::int64_t position) noexcept {
    if (const FileHooks* hooks = Hooks(); hooks != nullptr && hooks->seek != nullptr) {
        return hooks->seek(stream, position);
    }
    return RuntimeSeek(stream, position);
}

bool CloseFile(std::FILE* stream) noexcept {
    if (const FileHooks* hooks = Hooks(); hooks != nullptr && hooks->close != nullptr) {
        return hooks->close(stream);
    }
    return std::fclose(stream) == 0;
}

bool WriteTextFile(const char* name, const char* text, std::size_t size) noexcept {
    const FileHooks* hooks = Hooks();
    std::FILE* stream = (hooks != nullptr && hooks->open != nullptr) ? hooks->open(name, "w") : std::fopen(name, "w");
    if (stream == nullptr) return false;
    const bool written = WriteFile(text, size, stream) == size;
    return CloseFile(stream) && written;
}

const FileHooks* SetFileHooks(const FileHooks* hooks) noexcept {
    return g_fileHooks.exchange(hooks, std::memory_order_acq_rel);
}

// ---- Input files ----------------------------------------------------------------------------

namespace {

std::atomic<const InputFileHooks*> g_inputHooks{nullptr};

const InputFileHooks* InputHooks() noexcept { return g_inputHooks.load(std::memory_order_acquire); }

}  // namespace

std::FILE* OpenInputFile(const char* name) noexcept {
    const InputFileHooks* hooks = InputHooks();
    if (hooks != nullptr && hooks->open != nullptr) return hooks->open(name, "rb");
    std::FILE* stream = std::fopen(name, "rb");
    KeepFromChildren(stream);
    return stream;
}

std::size_t ReadInput(void* data, std::size_t size, std::FILE* stream) noexcept {
    if (const InputFileHooks* hooks = InputHooks(); hooks != nullptr && hooks->read != nullptr) {
        return hooks->read(data, size, stream);
    }
    return std::fread(data, 1, size, stream);
}

std::int64_t TellInput(std::FILE* stream) noexcept {
    if (const InputFileHooks* hooks = InputHooks(); hooks != nullptr && hooks->tell != nullptr) {
        return hooks->tell(stream);
    }
    return RuntimeTell(stream);
}

bool SeekInput(std::FILE* stream, std::int64_t position) noexcept {
    if (const InputFileHooks* hooks = InputHooks(); hooks != nullptr && hooks->seek != nullptr) {
        return hooks->seek(stream, position);
    }
    // A successful seek also clears the end-of-file indicator, which some runtimes keep sticky.
    return RuntimeSeek(stream, position);
}

bool CloseInput(std::FILE* stream) noexcept {
    if (const InputFileHooks* hooks = InputHooks(); hooks != nullptr && hooks->close != nullptr) {
        return hooks->close(stream);
    }
    return std::fclose(stream) == 0;
}

const InputFileHooks* SetInputFileHooks(const InputFileHooks* hooks) noexcept {
    return g_inputHooks.exchange(hooks, std::memory_order_acq_rel);
}

}  // namespace Tarvel::Platform
