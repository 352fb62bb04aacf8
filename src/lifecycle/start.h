// Starting the library: the full start with its watch thread and the light
// start without one.
#pragma once

namespace cm::lifecycle {

int init(int iMaster);
int initNoRegister();
// The read-only start: initNoRegister (iWatch 0) or init(0) (iWatch non-zero)
// with files opened for reading only.
int initReadOnly(int iWatch);
int fileAccessInit();
int fileAccessInitNoRegister();
int exit();
int exitDelayed();
void setAsMaster();

// The build's date and time, as the compiler writes them ("Apr 29 2025", "08:58:20").
const char* buildDate();
const char* buildTime();

}  // namespace cm::lifecycle
