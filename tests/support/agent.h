// A library user in a forked process, driven by line commands over a pipe.
//
// The parent spawns agents before it starts the library itself (a child
// must not inherit a running library), sends commands and reads replies and
// callback reports.  Every wait is bounded.
//
// Commands (one line each; every command answers "ok <result>"):
//   init <master>        CM_init(master)
//   reg <id>             register a callback that reports "cb <id>"
//   regrange <a> <b>     the same for IDs a..b
//   put <id> <value>     CM_PutDataItem with a number (host order, by type)
//   putseq <id> <a> <b>  puts a, a+1, ..., b; answers the number of failed writes
//   get <id>             "ok <rc> <number or text>"
//   set <id> <value>     CM_Set_Variable with a number (host order, by type)
//   regget <id>          register a callback that reads the variable with
//                        CM_Get_Variable and reports "cb <id> <rc> <number>"
//   exit                 CM_Exit(), then the process ends with status 0
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace cmtest {

class Agent {
public:
    Agent();  // forks; the child serves commands until "exit" or EOF
    ~Agent();
    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;

    // Sends a command and returns its "ok ..." reply (empty on timeout).
    std::string call(const std::string& command, std::chrono::milliseconds timeout = std::chrono::seconds(20));
    // IDs reported by callbacks so far, in arrival order.
    std::vector<int> callbacks();
    // The full text after "cb " of every callback report so far.
    std::vector<std::string> callbackLines();
    // Waits until at least n callbacks have been reported.
    bool waitCallbacks(size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(10));
    // Ends the child ("exit") and returns its exit status.
    int finish();
    pid_t pid() const { return pid_; }

    // Adds a command for the agents of one test file; its handler reads the
    // arguments and returns the text after "ok ".  Add before spawning:
    // the child inherits the table.
    using Verb = std::function<std::string(std::istringstream&)>;
    static void addVerb(const std::string& name, Verb handler);

private:
    bool readLine(std::string& line, std::chrono::milliseconds timeout);
    pid_t pid_ = -1;
    int toChild_ = -1, fromChild_ = -1;
    std::string pending_;
    std::vector<int> callbacks_;
    std::vector<std::string> callbackLines_;
};

}  // namespace cmtest
