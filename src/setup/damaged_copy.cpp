#include "setup/damaged_copy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "log/log.h"
#include "platform/safe_open.h"
#include "storage/file_state.h"

namespace cm::setup {
namespace {

constexpr auto kLogModule = log::Module::FileAccess;
constexpr const char* kFn = "CM_KeepDamagedCopy";

bool readAll(int fd, std::vector<char>& out) {
    for (size_t done = 0; done < out.size();) {
        const ssize_t n = pread(fd, out.data() + done, out.size() - done, static_cast<off_t>(done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

bool writeAll(int fd, const std::vector<char>& in) {
    for (size_t done = 0; done < in.size();) {
        const ssize_t n = write(fd, in.data() + done, in.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// A new file of our own (whatever entry was there is removed, nothing is
// followed), written in full and synced.
bool writeNewFile(const std::string& path, const std::vector<char>& bytes) {
    const platform::OpenResult r = platform::replaceWithNew(path.c_str(), O_WRONLY, 0600);
    if (!r.ok()) {
        errno = r.err;
        return false;
    }
    const bool ok = writeAll(r.fd, bytes) && fsync(r.fd) == 0;
    if (close(r.fd) != 0 || !ok) {
        unlink(path.c_str());
        return false;
    }
    return true;
}

}  // namespace

void keepDamagedCopy(int i) {
    const int fd = storage::fdRead[i];
    struct stat st{};
    if (fd < 0 || fstat(fd, &st) != 0 || st.st_size <= 0) return;
    const std::string path = std::string(storage::pathOf(i)) + ".damaged";
    const std::string tmp = path + ".new";
    std::vector<char> bytes(static_cast<size_t>(st.st_size));
    // Written aside and renamed, so the previous copy goes only once the new
    // one is whole; rename replaces a link at the final name, never follows it.
    if (!readAll(fd, bytes) || !writeNewFile(tmp, bytes) || rename(tmp.c_str(), path.c_str()) != 0) {
        const int e = errno;
        unlink(tmp.c_str());
        CM_LOG(log::kErr, kFn, "CM data file [%d] '%s' is damaged, but no copy of it could be kept as '%s', errno=%d '%s'\n",
               i, storage::pathOf(i), path.c_str(), e, std::strerror(e));
        return;
    }
    CM_LOG(log::kWarn, kFn, "CM data file [%d] '%s' is damaged: kept a copy of its %lu bytes as '%s' before repairing it\n",
           i, storage::pathOf(i), static_cast<unsigned long>(st.st_size), path.c_str());
}

}  // namespace cm::setup
