#pragma once

// On Windows the system headers define macros named like this program's own functions (ReportEvent
// becomes ReportEventA, GetMessage GetMessageA). Including them here first, once, and dropping those
// names keeps every translation unit agreeing on what the functions are called, whatever it includes
// later. Elsewhere this header is empty.
#ifdef _WIN32
#include <winsock2.h>

#include <windows.h>
#undef ReportEvent
#undef GetMessage
#endif
