// A sink that writes every message, whatever its channel, to one descriptor
// (a tool's standard error), adding the line end a message lacks.
#pragma once

namespace cm::log {

// fd >= 0 installs the descriptor sink; -1 restores the default sink.
void sendToDescriptor(int fd);

}  // namespace cm::log
