// Writes a fixed set of data files under a given root directory: every file
// created from defaults, then a deterministic value put
// into every numeric, text and raw-byte variable through the C API, and
// finally defaults group 3 reset.  Then a backup text of the whole
// configuration (volatile and octet data included) is written to
// ROOT/backup.txt: it must be identical on every host as well.
//
// tools/be/compare-endianness.sh runs the native build and a big-endian cross
// build (s390x, 32-bit PowerPC) of this program and compares the results byte
// for byte: the files are defined to be big-endian on every host, so they
// must be identical.  The program
// also reads every number back and fails when it does not return what was
// put, and prints a summary that must match between the two builds as well.
//
//   cm_write_sample ROOT      (ROOT must exist and be empty)
//
// Prints the data file paths, relative to ROOT, one per line after "file ".
#include <sys/stat.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "catalogue/catalogue.h"
#include "configmanager/cm_host.h"
#include "configmanager/configmanager.h"

namespace {

// Knuth's multiplicative hash: a value spread over the range, fixed per ID.
uint32_t spread(int32_t id) { return static_cast<uint32_t>(id) * 2654435761u; }

bool makeDirs(const std::string& path) {
    for (size_t pos = 1; pos != std::string::npos; pos = path.find('/', pos + 1)) {
        const std::string part = path.substr(0, pos);
        if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) return false;
    }
    return mkdir(path.c_str(), 0755) == 0 || errno == EEXIST;
}

struct Tally {
    int written = 0, unchanged = 0, refused = 0, readBackWrong = 0;
};

// Puts one value and, for numbers, reads it back in host order.
void putOne(int32_t id, const void* value, uint32_t size, bool number, Tally& t) {
    const int rc = CM_PutDataItem(id, value);
    if (rc < 0) {
        ++t.refused;
        std::printf("refused %" PRId32 " rc=%d\n", id, rc);
        return;
    }
    rc > 0 ? ++t.written : ++t.unchanged;
    if (!number) return;
    uint8_t back[4] = {};
    if (CM_GetDataItem(id, back) != 0 || std::memcmp(back, value, size) != 0) {
        ++t.readBackWrong;
        std::printf("read back wrong %" PRId32 "\n", id);
    }
}

void putNumber(int32_t id, uint8_t type, uint32_t min, uint32_t max, Tally& t) {
    if (max <= min) return;
    const uint64_t span = uint64_t{max} - min + 1;
    const uint32_t v = min + static_cast<uint32_t>(spread(id) % span);
    if (type == DT_OCTET) {
        const uint8_t b = static_cast<uint8_t>(v);
        putOne(id, &b, 1, true, t);
    } else if (type == DT_WORD) {
        const uint16_t w = static_cast<uint16_t>(v);
        putOne(id, &w, 2, true, t);
    } else {
        putOne(id, &v, 4, true, t);
    }
}

void putText(int32_t id, uint32_t size, Tally& t) {
    if (size < 2) return;
    std::vector<char> buf(size, '\0');
    std::snprintf(buf.data(), size, "s%" PRId32 "-%08" PRIx32, id, spread(id));
    putOne(id, buf.data(), size, false, t);
}

void putBytes(int32_t id, uint32_t size, Tally& t) {
    std::vector<uint8_t> buf(size);
    for (uint32_t i = 0; i < size; ++i) buf[i] = static_cast<uint8_t>(spread(id + static_cast<int32_t>(i)) >> 24);
    putOne(id, buf.data(), size, false, t);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s ROOT\n", argv[0]);
        return 2;
    }
    const std::string root = argv[1];
    if (!makeDirs(root + "/tmp") || !makeDirs(root + "/var/AppData/config")) {
        std::perror("mkdir");
        return 1;
    }
    if (CM_Host_SetRootDirectory(root.c_str()) != 0) {
        std::fprintf(stderr, "cannot use %s as root\n", root.c_str());
        return 1;
    }

    // Every file created and filled from its defaults, then released; the
    // light start (no watch thread: nothing but this program touches the
    // files) opens them again and checks them record by record.
    for (int i = 0; i < CM_NUM_FILES; ++i) {
        if (CM_OpenOrCreateFile(i) != 1 || CM_WriteDefaultData(i, 1, 0) != 0) {
            std::fprintf(stderr, "cannot create data file %d\n", i);
            return 1;
        }
    }
    CM_CleanUp();
    if (CM_initNoRegister() != 0) {
        std::fprintf(stderr, "start failed\n");
        return 1;
    }

    Tally t;
    for (int32_t id = 0; id <= CM_MAX_VAR_ID; ++id) {
        uint8_t type;
        uint32_t min, max, size;
        if (CM_GetCMvarBounds(id, &type, &min, &max) != 0) continue;  // in no file
        if (CM_GetDataSizeFromVarId(id, &size) != 0) continue;
        if (id == CM_FLAG) continue;  // the library's own state byte
        switch (type) {
            case DT_OCTET:
            case DT_WORD:
            case DT_DWORD: putNumber(id, type, min, max, t); break;
            case DT_STRING: putText(id, size, t); break;
            case DT_OCTET_STRING: putBytes(id, size, t); break;
            default: break;  // addresses and passwords keep their defaults
        }
    }
    // Group 3 back to defaults: rewrites part of what was just put.
    int resetFailed = 0;
    for (int i = 0; i < CM_NUM_FILES; ++i)
        if (CM_WriteDefaultDataItems(i, 3) != 0) ++resetFailed;
    std::printf("written %d unchanged %d refused %d read-back-wrong %d reset-failed %d\n", t.written, t.unchanged,
                t.refused, t.readBackWrong, resetFailed);

    for (int i = 0; i < CM_NUM_FILES; ++i) std::printf("file %s\n", cm::catalogue::sConfigItemList[i].szPath);

    // Addresses and an enciphered password through their text forms, then
    // the backup text.
    int textFailed = 0;
    for (const auto& [id, text] : {std::pair{CURRENT_IP4_ADDRESS, "192.0.2.1"}, std::pair{CURRENT_IP6_ADDRESS, "2001:db8::7"},
                                   std::pair{CURRENT_FILE_TRANSFER_PASSWORD, "sample secret"}})
        if (CM_PutDataItemFromString(id, text) < 0) ++textFailed;
    const std::string backup = root + "/backup.txt";
    if (textFailed != 0 || CM_BackupConfig_common(backup.c_str(), 1, 1) != 0) {
        std::fprintf(stderr, "backup text failed\n");
        return 1;
    }
    std::printf("backup /backup.txt\n");

    if (CM_Exit() != 0) {
        std::fprintf(stderr, "stop failed\n");
        return 1;
    }
    return t.readBackWrong == 0 && resetFailed == 0 && t.written > 0 ? 0 : 1;
}
