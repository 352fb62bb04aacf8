// What every subcommand shares: the global options, the one way to report a
// failure, and starting and stopping the library in this process.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace cmctl {

// Exit statuses.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;

// A failed operation: main prints "cmctl: <what>" and exits with 1.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};
// A usage error found after parsing: exit status 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Options {
    std::string root = "/";
    bool json = false;
    int verbose = 0;
    bool master = false;  // start as the master (creates and repairs files)
};

Options& options();

// How a subcommand starts the library.
enum class Start {
    ReadOnly, // files opened read-only, read locks, nothing created or synced
    Writer,   // files set up for writing, no watch thread
    ReadOnlyWatcher,  // read-only, with the watch thread
    Watcher,  // full start: the watch thread calls our callbacks
    Master,   // the master role: creates missing files, repairs damaged ones
};

// Starts the library under the chosen root for the life of the object.  A
// non-master start refuses a tree whose data files are missing or empty
// instead of waiting for a master that may never come.
class Library {
public:
    explicit Library(Start how);
    ~Library();
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
};

// Makes the folders of the data files in a fresh device tree.
void makeDataFolders();

// Applies --root and the log options; called before any library use.
void applyGlobalOptions();

// Blocks SIGINT, SIGTERM and SIGHUP in this thread (threads started later
// inherit the mask) so that waitForStop() takes them; an ignored disposition
// inherited from a shell's background job is reset, or the signal would be
// discarded before it could be waited for.
void blockStopSignals();
// Waits for one of them.
void waitForStop();

// The whole of a file, or of standard input for "-"; Failure when it cannot
// be read.
std::string readInput(const std::string& path);

// The exit status a Failure gives (1 unless a subcommand reserves 1 for a
// result, as diff and find do, and takes 2 for errors).
void setFailureStatus(int status);
int failureStatus();

// Asks "<what> Continue? [y/N]" on a terminal; without one, only `yes`
// (the -y option) confirms.  Failure("not confirmed ...") otherwise.
void requireConfirmation(const std::string& what, bool yes);

// The absolute ID of a variable name, or Failure("NAME: no such variable").
int32_t idOf(const std::string& name);

}  // namespace cmctl
