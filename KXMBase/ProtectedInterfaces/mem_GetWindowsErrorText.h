// Texts of the system's error codes: GetLastError's on Windows, errno's on Linux.
#pragma once

#include "KXMBasMemExport.h"
#include "mem_String.h"

/// The system's text without any line end in it, in the user's language on Windows and in English on
/// Linux; a string with no value for a code that the system has no text for. Any thread.
KXMBASMEM_API mem_String mem_GetWindowsErrorText(int code);

/// The same for the calling thread's last error.
KXMBASMEM_API mem_String mem_GetWindowsLastErrorText();
