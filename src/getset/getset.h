// Get and set by absolute ID: the operations behind CM_Get_Variable,
// CM_Set_Variable and their variants.
//
// Gets need a started library and take no mutex, except that a read of the
// first MAC address also refreshes the process's MAC cache under mCMMutex.
// Sets need only that start was begun; they hold mCMMutex (recursive) around
// the conversion, encipherment and record write.  Neither allocates.
#pragma once

#include <cstdint>

namespace cm::getset {

inline constexpr int kNotStarted = -12;  // also: ID above 3289 on get, mutex failure
inline constexpr int kInvalid = -15;     // read failed, invalid ID on set, password failure

int getVariable(int32_t id, void* value);
int getVariableLogError(int32_t id, void* value);
int getVariableDefault(int32_t id, void* value);
// 0 in range or not a number, 1 repaired to the default, negative on failure.
int getVariableChecked(int32_t id, void* value);

// Dropped (0) while a profile download is in progress.
int setVariable(int32_t id, const void* value);
int setVariableLogError(int32_t id, const void* value);
// Unconditional.  After a password failure mCMMutex stays held by the
// calling thread (kept on purpose: other threads' sets then block).
int setVariableCmi(int32_t id, const void* value);
int setVariableCmiLogError(int32_t id, const void* value);

}  // namespace cm::getset
