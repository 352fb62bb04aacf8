// Replays every input kept for the fuzz targets (tests/fuzz-corpus/<target>/):
// the seeds and any input that once broke a target.
#include "support/test_support.h"
#include "targets.h"

namespace {

namespace fs = std::filesystem;

TEST(FuzzCorpus, EveryKeptInputRunsCleanly) {
    const std::vector<std::pair<std::string, void (*)(const uint8_t*, size_t)>> targets = {
        {"restore_backup", cmfuzz::restoreBackup},
        {"restore_filter", cmfuzz::restoreFilter},
        {"tag_cache", cmfuzz::loadTagCache},
    };
    int inputs = 0;
    for (const auto& [name, run] : targets) {
        for (const auto& f : fs::directory_iterator(fs::path(CM_FUZZ_CORPUS_DIR) / name)) {
            SCOPED_TRACE(f.path().string());
            std::ifstream in(f.path(), std::ios::binary);
            const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            run(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
            ++inputs;
        }
    }
    EXPECT_GE(inputs, 3);
}

}  // namespace
