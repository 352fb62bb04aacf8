// Starting the library: the full start with its watch thread and the light
// start without one.
#pragma once

namespace cm::lifecycle {

int init(int iMaster);
int initNoRegister();
int fileAccessInit();
int fileAccessInitNoRegister();
int exit();
int exitDelayed();
void setAsMaster();

// "%d.%03d.%d.%d" parts and the build's date and time.
const char* buildDate();
const char* buildTime();

}  // namespace cm::lifecycle
