// A signature from a CNG program to a soft token, layer by layer.
#pragma once

#include "report.h"

namespace bench {

// Runs beside the stand-ins, on a soft token with the key "Key1" and a PIN in KELDA_PIN.
void MeasureEndToEnd(Report& report);

}  // namespace bench
