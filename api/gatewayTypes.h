// Basic types of the element gateway's interface: the typedefs, the client handle, the date-time
// record and the precondition report hook.
#ifndef ELEMENT_GATEWAY_TYPES_H
#define ELEMENT_GATEWAY_TYPES_H

#include <cstddef>

#define EGW_API __attribute__((visibility("default")))

typedef unsigned int UINT32;
typedef int INT32;
typedef unsigned short UINT16;
typedef int BOOL;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

static_assert(sizeof(UINT32) == 4 && sizeof(INT32) == 4 && sizeof(UINT16) == 2,
              "the interface's integer typedefs have fixed widths");

// The wire side's client handle: an identity token that the gateway never reads.
class EGW_API ElementServerThriftClient
{
};

// The host's date-time record: 13 bytes, packed. The gateway copies it whole and never looks at
// its members.
#pragma pack(push, 1)
struct tagBSC_DATETIME
{
    unsigned short mYear;
    unsigned char mMonth;
    unsigned char mDay;
    unsigned char mWeekDay;
    unsigned int mSecondOfDay;
    unsigned int mMicrosecond;
};
#pragma pack(pop)

static_assert(sizeof(tagBSC_DATETIME) == 13 && alignof(tagBSC_DATETIME) == 1,
              "tagBSC_DATETIME is 13 packed bytes");
static_assert(offsetof(tagBSC_DATETIME, mMonth) == 2 && offsetof(tagBSC_DATETIME, mWeekDay) == 4 &&
                  offsetof(tagBSC_DATETIME, mSecondOfDay) == 5 &&
                  offsetof(tagBSC_DATETIME, mMicrosecond) == 9,
              "tagBSC_DATETIME field offsets");

// A violated precondition or broken invariant is reported through this handler with the checked
// expression's text and the operation's declaration; the operation then returns its failure result
// without reaching the element server.
typedef void (*EGW_AssertHandler)(const char* expression, const char* function, const char* file,
                                  int line);

// Installs a handler and returns the previous one; null restores the default handler, which writes
// the report to standard error in the platform assertion's format.
EGW_API EGW_AssertHandler EGW_SetAssertHandler(EGW_AssertHandler handler);

#endif
