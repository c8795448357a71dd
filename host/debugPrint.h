// Host process-support library: the panel's debug log.
#ifndef HOST_DEBUG_PRINT_H
#define HOST_DEBUG_PRINT_H

#include "host/elementServer.h"

// Writes one log line: level, module tag and a printf-style format with its values.
HOST_API void DebugPrint(int level, const char* module, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

#endif
