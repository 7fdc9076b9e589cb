#pragma once

// What the Windows notification-area icon shows of itself to the tests: its hidden window and the command
// ids of its menu entries.
#include <windows.h>

#include "platform/Tray.h"

namespace tavrel::platform::win32 {

inline constexpr char kTrayWindowClass[] = "TavrelTrayWindow";

// Menu entry i has command id kFirstMenuCommand + i (0 is "no choice" for TrackPopupMenu).
inline constexpr UINT kFirstMenuCommand = 1;

// The hidden window that receives the icon's mouse messages and the menu's commands.
HWND TrayWindow(const Tray& tray);

}  // namespace tavrel::platform::win32
