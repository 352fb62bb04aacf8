// A library user in a forked process, driven by line commands.  Spawn agents
// before this process starts the library (a child must not inherit a running
// library).  Every command answers "ok <result>"; numbers travel in host
// order in the variable's own width.
//   init <master>          CM_init
//   reg <id> [<last>]      a callback for id..last that reports "cb <id>"
//   put <id> <n>           CM_PutDataItem
//   get <id>               "<rc> <number or text>"
//   exit                   CM_Exit, then the process ends with status 0
#pragma once

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "support/child_link.h"

namespace cmtest {

class Agent {
public:
    Agent();
    // Sends a command and returns its "ok ..." reply (empty on timeout).
    std::string call(const std::string& command, std::chrono::milliseconds timeout = std::chrono::seconds(20));
    std::vector<int> callbacks();               // IDs reported so far, in order
    bool waitCallbacks(size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(10));
    int finish();  // "exit"; the child's exit status
    pid_t pid() const { return link_.pid(); }

    // A command for the agents of one test file, answering the text after
    // "ok ".  Add before spawning: the child inherits the table.
    using Verb = std::function<std::string(std::istringstream&)>;
    static void addVerb(const std::string& name, Verb handler);

private:
    bool readLine(std::string& line, std::chrono::milliseconds timeout);
    cmcheck::ChildLink link_;
    std::vector<int> callbacks_;
};

}  // namespace cmtest
