// The clean-up steps of a factory reset: shell commands and file deletions
// that name fixed device paths.
//
// Every path is resolved under the root directory.  Under "/" a command is
// the device's own string; under another root the root is inserted in front
// of each device path, single-quoted for the shell, so that a root holding a
// blank, a quote or any other special character neither breaks the command
// nor runs anything else, while the path's own wildcard still expands.
#pragma once

#include <string>

namespace cm::defaults {

// Each shell step is a command word and one device path (which may end in a
// wildcard).
struct ShellStep {
    const char* szCommand;  // "rm -f " or "touch "
    const char* szPath;     // absolute device path
};

// The shell command for a step under the current root.
std::string shellCommand(const ShellStep& step);
// Text quoted for the POSIX shell: 'text', each ' written as '\''.
std::string shellQuote(const std::string& text);

// Runs the steps through the shell seam, ignoring their results.
void runShellSteps(const ShellStep* steps, int count);

// The steps of a factory reset, in the order they run.
void removeSystemLogs();       // the system log files
void removeDiagnostics();      // captures, traces, bundles
void removeCertificates();     // three certificate files, deleted directly
void clearShellHistories();    // shell histories, then the clear-history marker

}  // namespace cm::defaults
