// Platform and token that answer at once, so that what is left is the provider's own time.
#pragma once

#include "fake_token/fake_token.h"
#include "imports.h"

namespace bench {

// A token of that many key pairs, named as KeyName says, that does nothing. It has the serial number of the token that
// the list knows in this slot.
void FillBareToken(fake::FunctionList& list, CK_SLOT_ID slot, std::size_t keyPairs);

// The platform's demanded calls, made nothing of; with a log, the registry says so.
void StubPlatform(ImportTable& imports, bool log);

// "Key" and the number in four digits.
std::string KeyName(std::size_t number);

}  // namespace bench
