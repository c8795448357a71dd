// Host type library: the static definitions of the element types (properties with their storage
// types and default texts, relations, commands, state groups and their values, visibility).
// Every function takes the whole tagged id and returns its answer by value.
#ifndef HOST_TYPE_LIBRARY_H
#define HOST_TYPE_LIBRARY_H

#include <string>
#include <vector>

#include "host/elementServer.h"

// One property definition: 20 bytes, no owned memory.
struct PropertyDef
{
    unsigned int PropertyID;
    unsigned char Attr1;
    unsigned int Attr2;
    unsigned int Attr3;
    unsigned char Attr4;
    unsigned char Attr5;
    unsigned char Attr6;
    unsigned char Attr7;
};

// One relation definition: 12 bytes. RelationKind 0 means the related type is a child type.
struct RelationDef
{
    unsigned int RelatedTypeID;
    signed char RelationKind;
    unsigned short Attr1;
    unsigned short Attr2;
    unsigned char Attr3;
};

// One property definition with its default value as text (which may begin with the UTF-8
// byte-order mark). The first 20 bytes have the layout of PropertyDef.
struct PropertyDefaultDef
{
    unsigned int PropertyID;
    unsigned char Attr1;
    unsigned int Attr2;
    unsigned int Attr3;
    unsigned char Attr4;
    unsigned char Attr5;
    unsigned char Attr6;
    unsigned char Attr7;
    std::string DefaultValue;
};

HOST_API unsigned int GetPropertyTypeByID(unsigned int propertyId);
HOST_API std::vector<PropertyDef> GetPropertyList(unsigned int elementTypeId);
HOST_API std::vector<RelationDef> GetRelationList(unsigned int elementTypeId);
HOST_API std::vector<unsigned int> GetCommandList(unsigned int elementTypeId);
HOST_API std::vector<unsigned int> GetStateList(unsigned int elementTypeId);
HOST_API std::vector<unsigned int> GetAllStatusInGroup(unsigned int stateGroupId);
HOST_API unsigned int GetDefaultStatusOfGroup(unsigned int stateGroupId);
HOST_API std::vector<PropertyDefaultDef> GetPropertyDefaultList(unsigned int elementTypeId);
HOST_API unsigned int GetVisibleByType(unsigned int elementTypeId);

#endif
