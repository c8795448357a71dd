// Queries over several elements: commands broadcast along a reference relation, the visible related
// elements, every element of a subtree, every type that can occur below a type, and the prepared
// deletion of a whole subtree.
#include "api/callingFrame.h"
#include "api/gatewayApi.h"
#include "composite/gatewayComposite.h"

namespace
{

constexpr UINT32 kVisibleCode = 0x90301;
constexpr UINT32 kVisibleToo = 0x90302;
// Carries a visible code but is never listed among related elements.
constexpr UINT32 kNeverListedType = 0x76101;
// Sent to every element of a subtree, with the subtree's root as source, before it is deleted.
constexpr UINT32 kPreDeleteCommand = 0x14286;

constexpr UINT32 kResetRootMode = 1;
constexpr UINT32 kResetSubtreeMode = 2;

bool isVisible(UINT32 elementType)
{
    const UINT32 code = EGW_BASIC_GetVisibleByElementType(elementType);
    return (code == kVisibleCode || code == kVisibleToo) && elementType != kNeverListedType;
}

bool ofType(UINT32 uuid, UINT32 elementTypeId, void* client)
{
    return 0 == elementTypeId ||
           EGW_ElementServerGetElementTypeByUuid(uuid, client) == elementTypeId;
}

} // namespace

BOOL EGW_BroadcastCommandToRelationship(UINT32 mUuid, UINT32 commandId, UINT32 sourceUuid,
                                        UINT32 relationType, BOOL direction, BOOL bIncludeSelf,
                                        void* client)
{
    static constexpr char kFn[] = "BOOL EGW_BroadcastCommandToRelationship(UINT32, UINT32, UINT32, "
                                  "UINT32, BOOL, BOOL, void*)";
    EGW_REQUIRE(0 != mUuid, kFn, FALSE);

    std::vector<int> targets;
    EGW_ElementServerGetReferenceRelations(targets, mUuid, relationType, direction, client);
    if (bIncludeSelf)
    {
        targets.push_back(static_cast<int>(mUuid));
    }
    if (0 == EGW_BASIC_GetVectorSize(targets))
    {
        return TRUE;
    }
    // Every element is expected to take the command. One that refuses is reported as a broken
    // invariant and ends the broadcast with FALSE: the elements after it receive nothing.
    for (int target : targets)
    {
        const INT32 mReturn = EGW_ElementServerExecuteCommand(
            static_cast<UINT32>(target), commandId, sourceUuid, nullptr, 0, client);
        EGW_REQUIRE(0 == mReturn, kFn, FALSE);
    }
    return TRUE;
}

void EGW_BASIC_THRIFT_GetVisibleRelationElementList(UINT32 uuid, UINT32 relationType,
                                                    INT32 direction, std::vector<int>& out,
                                                    void* client)
{
    out.clear();
    std::vector<int> related;
    EGW_ElementServerGetReferenceRelations(related, uuid, relationType, direction, client);
    for (int element : related)
    {
        if (isVisible(EGW_ElementServerGetElementTypeByUuid(static_cast<UINT32>(element), client)))
        {
            out.push_back(element);
        }
    }
}

UINT32 EGW_BASIC_THRIFT_GetAllElementUuidByElementType(UINT32 rootUuid, UINT32 elementTypeId,
                                                       std::vector<unsigned int>& out, void* client)
{
    out.clear();
    if (ofType(rootUuid, elementTypeId, client))
    {
        out.push_back(rootUuid);
    }
    EBT_SUB_GetAllElementUuidByElementType(rootUuid, elementTypeId, out, client);
    return static_cast<UINT32>(out.size());
}

// Pre-order: each child, then its own subtree, before the next child. Children that do not match
// are walked all the same, so matching descendants below them are found.
void EBT_SUB_GetAllElementUuidByElementType(UINT32 uuid, UINT32 elementTypeId,
                                            std::vector<unsigned int>& out, void* client)
{
    std::vector<int> children;
    EGW_ELementServerGetChildrenUuidList(children, uuid, client);
    for (int child : children)
    {
        const auto childUuid = static_cast<UINT32>(child);
        if (ofType(childUuid, elementTypeId, client))
        {
            out.push_back(childUuid);
        }
        EBT_SUB_GetAllElementUuidByElementType(childUuid, elementTypeId, out, client);
    }
}

// The subtree is prepared completely (commands, then states) before the waited delete, which
// comes last.
UINT32 EGW_ELementServerDeleteElementWaitNotifyByUuid(
    UINT32 rootUuid, std::vector<S_EGW_DELETE_ELEMENT_CHANGE_STATE_LIST>& changeList, UINT32 mode)
{
    std::vector<unsigned int> subtree;
    EGW_BASIC_THRIFT_GetAllElementUuidByElementType(rootUuid, 0, subtree, nullptr);
    for (unsigned int element : subtree)
    {
        EGW_ElementServerExecuteCommand(element, kPreDeleteCommand, rootUuid, nullptr, 0, nullptr);
    }

    if (mode == kResetRootMode)
    {
        EGW_SetOneElementToDefaultStates(rootUuid);
    }
    else if (mode == kResetSubtreeMode)
    {
        for (unsigned int element : subtree)
        {
            EGW_SetOneElementToDefaultStates(element);
        }
    }
    else
    {
        for (const S_EGW_DELETE_ELEMENT_CHANGE_STATE_LIST& change : changeList)
        {
            EGW_ELementServerSetStateValueByUuid(change.mStateValue, change.mUuid, change.mGroupId,
                                                 nullptr);
        }
    }
    return static_cast<UINT32>(EGW_ELementServerDeleteElementWaitNotifyInner(rootUuid));
}

BOOL EGW_BASIC_THRIFT_GetAllChildrenElementType(std::vector<unsigned int>& out,
                                                UINT32 mParentElementTypeID)
{
    static constexpr char kFn[] =
        "BOOL EGW_BASIC_THRIFT_GetAllChildrenElementType(std::vector<unsigned int>&, UINT32)";
    EGW_REQUIRE(0 != mParentElementTypeID, kFn, FALSE);

    out.clear();
    EGW_BASIC_THRIFT_GetAllChildrenElementTypeInner(out, mParentElementTypeID);
    return TRUE;
}

// A type already in the list is neither added nor walked again: the walk ends also when the type
// definitions hold cycles, and it goes at most as deep as there are distinct child types.
BOOL EGW_BASIC_THRIFT_GetAllChildrenElementTypeInner(std::vector<unsigned int>& out,
                                                     UINT32 mParentElementTypeID)
{
    static constexpr char kFn[] =
        "BOOL EGW_BASIC_THRIFT_GetAllChildrenElementTypeInner(std::vector<unsigned int>&, UINT32)";
    EGW_REQUIRE(0 != mParentElementTypeID, kFn, FALSE);

    std::vector<EGW_RelationDef_Thrift> relations;
    if (0 == EGW_ELementServerGetRelationList(mParentElementTypeID, relations))
    {
        return TRUE;
    }
    for (const EGW_RelationDef_Thrift& relation : relations)
    {
        const UINT32 childType = relation.RelatedTypeID;
        if (0 == relation.RelationKind && 0 != childType && !CheckIsHavedInList(out, childType))
        {
            out.push_back(childType);
            EGW_BASIC_THRIFT_GetAllChildrenElementTypeInner(out, childType);
        }
    }
    return TRUE;
}
