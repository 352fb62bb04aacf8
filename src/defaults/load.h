// Loading defaults at three levels: general (defaults group 3), factory
// (every variable but the software version, with the device clean-up) and
// all (every data file rebuilt from scratch under the all-defaults lock file).
#pragma once

namespace cm::defaults {

// The sum of the ten files' results; 0 means no errors.
int loadGeneralDefaults();
// The error count; 0 means no errors.
int loadFactoryDefaults();
// The sum of the ten files' results, a file that cannot be opened counting -1.
int loadAllDefaults();

}  // namespace cm::defaults
