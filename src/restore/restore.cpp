#include "restore/restore.h"

#include <cstdio>
#include <cstring>

#include "catalogue/lookup.h"
#include "log/syslog_direct.h"
#include "restore/backup_reader.h"
#include "restore/filter.h"
#include "storage/held_file.h"
#include "tags/tag_table.h"
#include "text/value_text.h"

namespace cm::restore {
namespace {

static_assert(sizeof(BackupLine::value) >= text::kTextSize, "the read-back needs a full text buffer");

// Sets one variable from its line.  False when that failed.
bool restoreLine(BackupLine& line, const Filter& filter, storage::HeldFile& held) {
    if (std::strcmp(line.value, "NULL") == 0) line.value[0] = '\0';
    if (const char* name = filter.match(line.tag)) {
        log::syslogDirect(6, "CM_RestoreConfig: CM var '%s' not restored, as its name matches filter '%s'\n",
                          line.tag, name);
        return true;
    }
    int32_t id;
    if (tags::findMatchingTag(line.tag, &id) != 0) {
        // A backup from a version with more variables restores cleanly.
        log::syslogDirect(3, "Tag %s not found\n", line.tag);
        return true;
    }
    // The lines come in ID order, so mostly file by file: each file is held
    // whole across its lines, and watchers diff it once when it is let go.
    catalogue::Location loc;
    if (catalogue::toRelative(id, loc)) held.hold(loc.iFileIndex);
    // A malformed line (no separator, overlong value) has no value to set.
    if (line.malformed || text::valueFromText(id, line.value) < 0) {
        log::syslogDirect(3, "Set operation failed for CM var %s, check value?\n", line.tag);
        return false;
    }
    if (text::valueToText(id, line.value, text::Form::Labelled) != 0) {
        log::syslogDirect(6, "CM var %s set ok, but could not verify new value.\n", line.tag);
        return false;
    }
    return true;
}

}  // namespace

int restoreConfig(const char* backupPath, const char* filterPath) {
    if (backupPath == nullptr) return -1;
    FILE* fp = std::fopen(backupPath, "re");
    if (fp == nullptr) {
        log::syslogDirect(3, "Failed to open CM backup file '%s' for reading\n", backupPath);
        return 1;
    }
    Filter filter;
    if (filterPath != nullptr && filterPath[0] != '\0') filter.read(filterPath, backupPath);

    BackupReader reader(fp);
    BackupLine line;
    if (!reader.next(line, true)) line.tag[0] = line.value[0] = '\0';
    // Only the tag is checked: a backup of another version restores too.
    if (std::strcmp(line.tag, "SOFTWARE_VERSION") != 0) {
        log::syslogDirect(3, "Corrupted backup file, the first line '%s : %s' is not for SOFTWARE_VERSION\n", line.tag,
                          line.value);
        log::syslogDirect(3, "CM variables have not been restored from file '%s'\n", backupPath);
        std::fclose(fp);
        return 1;
    }
    bool errors = false;
    {
        storage::HeldFile held;
        while (reader.next(line))
            if (!restoreLine(line, filter, held)) errors = true;
    }
    std::fclose(fp);
    if (errors) {
        log::syslogDirect(5, "CM variables have been restored from file '%s', with errors\n", backupPath);
        return 1;
    }
    log::syslogDirect(5, "CM variables have been restored from file '%s'\n", backupPath);
    return 0;
}

}  // namespace cm::restore
