// Whether the token has a key of a record's name already.
#pragma once

#include "keys/record/key_record.h"
#include "provider/record/provider_record.h"

// Asks the token whether a key labelled with the record's name exists and fills the record's object handles from the
// answer, whatever it is. Returns NTE_EXISTS, NTE_NOT_FOUND, NTE_INVALID_PARAMETER, NTE_INTERNAL_ERROR or
// NTE_NO_MEMORY.
SECURITY_STATUS CheckKeyExists(KELDAKSP_KEY* key, const KELDAKSP_PROVIDER* provider);
