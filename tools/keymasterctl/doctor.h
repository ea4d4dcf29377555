// Checks of the set-up that keymasterctl works in.
#ifndef KEYMASTERCTL_DOCTOR_H
#define KEYMASTERCTL_DOCTOR_H

#include <string>
#include <vector>

struct Finding {
  enum class Grade { kGood, kNote, kBroken };
  std::string subject;
  Grade grade;
  std::string found;
  std::string advice;  // what to do; empty where all is well
};

// CheckLibraries finds out which shared libraries are loaded, and from where.
std::vector<Finding> CheckLibraries();
// CheckState tries to write into the TA's state folder, or finds out whether it can be made.
Finding CheckState();
// CheckWorker looks for the program that runs the TA.
Finding CheckWorker();
// CheckTa connects to the TEE and has the TA answer.
std::vector<Finding> CheckTa();
// CheckEvents tries the place for fault events.
Finding CheckEvents();
// CheckSystem reads the system version that keys are bound to.
Finding CheckSystem();
// CheckCrypto names the flavour and version of libcrypto.
Finding CheckCrypto();

#endif  // KEYMASTERCTL_DOCTOR_H
