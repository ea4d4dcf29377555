// The commands, by family.
#ifndef KEYMASTERCTL_COMMANDS_H
#define KEYMASTERCTL_COMMANDS_H

#include "command_line.h"

struct NoArgs {};

void AddKeyCommands(CommandLine* line);            // generate ... delete
void AddImportCommands(CommandLine* line);         // import, import-wrapped
void AddOperationCommands(CommandLine* line);      // sign, verify, encrypt, decrypt
void AddAttestCommands(CommandLine* line);         // attest
void AddAuthorizationCommands(CommandLine* line);  // auth-token ... hmac-sharing
void AddDeviceCommands(CommandLine* line);         // device state, configuration, info
void AddDoctorCommand(CommandLine* line);          // doctor
void AddShellCommands(CommandLine* line);          // completion, manual

#endif  // KEYMASTERCTL_COMMANDS_H
