// Tests on the bit patterns of floating-point values, which raise no floating-point exception and
// change nothing: thread-safe, and safe on signalling NaNs.
#pragma once

#include "KXMBasMemExport.h"

/// Whether the value is a NaN. Infinity is none. Nor is a double all of whose fraction bits set lie
/// among bits 48, 49 and 50: the mask leaves those three out, in this form alone.
KXMBASMEM_API bool omi_isnan(float value);
KXMBASMEM_API bool omi_isnan(double value);

/// A NaN by omi_isnan with its quiet bit set, or clear.
KXMBASMEM_API bool omi_isQnan(float value);
KXMBASMEM_API bool omi_isQnan(double value);
KXMBASMEM_API bool omi_isSnan(float value);
KXMBASMEM_API bool omi_isSnan(double value);

/// Makes a denormal positive zero, whatever its sign; leaves all else, zeros included. By the same
/// mask a double with fraction bits in those three positions alone stays too.
KXMBASMEM_API void omi_flushDenormal(float& value);
KXMBASMEM_API void omi_flushDenormal(double& value);
