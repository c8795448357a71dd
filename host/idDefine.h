// Host ID-definition library: the category of an id and the status types of a state value.
#ifndef HOST_ID_DEFINE_H
#define HOST_ID_DEFINE_H

#include "host/elementServer.h"

class HOST_API CIDDefine
{
public:
    // Category tag of an id (its upper 16 bits): 8 for a state group, 6 for a state value.
    static unsigned int GetTypebyID(unsigned int id);
    static unsigned int GetStatusL1TypebyID(unsigned int stateValue);
    static unsigned int GetStatusL2TypebyID(unsigned int stateValue);
};

#endif
