// The exit statuses of kandb-ctl, the same for every command.
#pragma once

namespace kandb::tools {

inline constexpr int kExitYes = 0;    // done; what was asked holds
inline constexpr int kExitNo = 1;     // the server or the data says no, or the data is damaged
inline constexpr int kExitUsage = 2;  // the command line is wrong; nothing was done
inline constexpr int kExitUnreachable = 3;  // the server could not be reached, the files not read

}  // namespace kandb::tools
