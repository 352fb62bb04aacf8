// One data file held whole by this thread for a run of record reads and
// writes (a restore's lines of one file).
#pragma once

namespace cm::storage {

// While held, the file's mutex and its whole-file lock belong to this thread
// (and the process's set mutex, taken first as a set takes it), and the
// thread's record reads and locked writes of that file take no lock of their
// own.  The CRC word, which a locked write rewrites each time, is written
// once, when the hold ends, if a record was written.  Other processes' passes
// wait for the hold and then diff the file once, instead of once a record.
class HeldFile {
public:
    HeldFile() = default;
    ~HeldFile() { release(); }
    HeldFile(const HeldFile&) = delete;
    HeldFile& operator=(const HeldFile&) = delete;

    // Holds file i, letting go of any other first.  A file that cannot be
    // locked is not held: its records then take their own locks.
    void hold(int iFileIndex);
    void release();
};

// While a file is held, this process's own watch leaves out its modify
// events: the thread would only wait for the hold, woken by every record
// written.  The CRC word written at the release, with the events back on,
// brings the thread's pass.  `aside(i, on)` turns them off and on; true
// when it did (set by the watch thread's owner).
void setHoldAside(bool (*aside)(int iFileIndex, bool on));

// True while this thread holds file i through a HeldFile.
bool heldWhole(int iFileIndex);
// A record of a held file was written: the CRC word follows at the release.
void noteHeldWrite(int iFileIndex);

}  // namespace cm::storage
