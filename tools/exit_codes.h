// Exit codes of the quelm tool, in the style of sysexits(3): scripts can tell a bad command line
// from bad input from an output failure.
#pragma once

namespace quelm_tool {

enum ExitCode : int {
    kExitOk = 0,
    kExitUsage = 64,        // the command line is wrong
    kExitDataError = 65,    // the input is corrupt, truncated or of a link type we cannot read
    kExitNoInput = 66,      // an input file or interface cannot be opened
    kExitNoHost = 68,       // a collector's host name is unknown
    kExitUnavailable = 69,  // a library the command needs (engine, libzmq) is missing or unusable
    kExitNoMemory = 71,     // the flow table cannot be allocated
    kExitCantCreate = 73,   // a temporary file cannot be created
    kExitOutputError = 74,  // the output cannot be created or written
    kExitTempFail = 75      // some flows could not be delivered (collectors too slow or gone)
};

// The more serious of two outcomes; the first error wins among errors.
inline int worse_exit(int current, int next) {
    return current != kExitOk ? current : next;
}

}  // namespace quelm_tool
