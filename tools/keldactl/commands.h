// The commands, a table for each group.
#pragma once

#include "arguments.h"

#include <vector>

namespace keldactl {

std::vector<Command> KeyCommands();          // keys, show, create, delete
std::vector<Command> SigningCommands();      // sign, verify
std::vector<Command> CertificateCommands();  // certificate, request
std::vector<Command> BlobCommands();         // export, import
std::vector<Command> CipherCommands();       // encrypt, decrypt
std::vector<Command> ProviderCommands();     // provider, readers

}  // namespace keldactl
