// The command line, and what each command does with it.
#ifndef KEYMASTERCTL_COMMANDS_H
#define KEYMASTERCTL_COMMANDS_H

#include <functional>

#include "tools/keymasterctl/params.h"

// Parse reads the arguments. Returns what the chosen command runs; nothing when all is said
// already, with the program's exit status in *status.
std::function<void()> Parse(int argc, char** argv, int* status);  // command_line.cpp

// key_commands.cpp
void RunGenerate(const Args& args);
void RunImport(const Args& args);
void RunImportWrapped(const Args& args);
void RunShow(const Args& args);
void RunExport(const Args& args);
void RunUpgrade(const Args& args);
void RunDelete(const Args& args);
void RunAttest(const Args& args);

// operation_commands.cpp
void RunSign(const Args& args);
void RunVerify(const Args& args);
void RunEncrypt(const Args& args);
void RunDecrypt(const Args& args);

// device_commands.cpp
void RunHmacSharing(const Args& args);
void RunAuthToken(const Args& args);
void RunVerifyAuthorization(const Args& args);
void RunDeviceLocked(const Args& args);
void RunEarlyBootEnded(const Args& args);
void RunConfigure(const Args& args);
void RunInfo(const Args& args);
void RunAddEntropy(const Args& args);
void RunDeleteAll(const Args& args);
void RunDestroyIds(const Args& args);

void RunDoctor(const Args& args);      // doctor.cpp
void RunHelp(const Args& args);        // command_line.cpp
void RunCompletion(const Args& args);  // completion.cpp
void RunManual(const Args& args);      // manual.cpp

#endif  // KEYMASTERCTL_COMMANDS_H
