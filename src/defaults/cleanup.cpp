#include "defaults/cleanup.h"

#include <unistd.h>

#include <climits>
#include <cstring>
#include <iterator>

#include "platform/env.h"
#include "platform/paths.h"

namespace cm::defaults {
namespace {

constexpr ShellStep kSystemLogs[] = {{"rm -f ", "/var/log/messages*"}};

constexpr ShellStep kDiagnostics[] = {
    {"rm -f ", "/tmp/*.txt"},
    {"rm -f ", "/tmp/log_*"},
    {"rm -f ", "/tmp/Zr440_CM_backup*"},
    {"rm -f ", "/var/log/ControlTask_*"},
    {"rm -f ", "/var/log/cmsif_msg*"},
    {"rm -f ", "/var/log/dsp_status*"},
    {"rm -f ", "/var/log/*.pcap"},
    {"rm -f ", "/home/VXEngineer/engg/techsupport*"},
};

constexpr const char* kCertificates[] = {
    "/var/www/shttpd.pem",
    "/etc/pki/tls/private/sip.pem",
    "/etc/pki/tls/certs/sip.pem",
};

constexpr ShellStep kHistories[] = {
    {"rm -f ", "/root/.ash_history"},
    {"rm -f ", "/home/VXEngineer/.ash_history"},
    {"touch ", "/var/AppData/.clearhistory"},
};

bool deviceRoot() { return std::strcmp(paths::root(), "/") == 0; }

}  // namespace

std::string shellQuote(const std::string& text) {
    std::string out = "'";
    for (char c : text) {
        if (c == '\'')
            out += "'\\''";
        else
            out += c;
    }
    return out + "'";
}

std::string shellCommand(const ShellStep& step) {
    if (deviceRoot()) return std::string(step.szCommand) + step.szPath;
    // The device path holds no character the shell treats specially except
    // its wildcard, so it stays unquoted after the quoted root.
    return std::string(step.szCommand) + shellQuote(paths::root()) + step.szPath;
}

void runShellSteps(const ShellStep* steps, int count) {
    for (int i = 0; i < count; ++i) (void)platform::env().shell(shellCommand(steps[i]).c_str());
}

void removeSystemLogs() { runShellSteps(kSystemLogs, static_cast<int>(std::size(kSystemLogs))); }

void removeDiagnostics() { runShellSteps(kDiagnostics, static_cast<int>(std::size(kDiagnostics))); }

void removeCertificates() {
    char resolved[PATH_MAX];
    for (const char* path : kCertificates)
        if (paths::resolve(resolved, path)) (void)unlink(resolved);
}

void clearShellHistories() { runShellSteps(kHistories, static_cast<int>(std::size(kHistories))); }

}  // namespace cm::defaults
