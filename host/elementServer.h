// Host element-server library: the classes through which the panel's element tree is reached.
// Declarations only. On the panel they are served by the host's own library; off-target by
// the panel simulator (panelsim). The gateway uses nothing beyond what is declared here.
#ifndef HOST_ELEMENT_SERVER_H
#define HOST_ELEMENT_SERVER_H

#include <list>
#include <string>

#define HOST_API __attribute__((visibility("default")))

// Lock kinds of ElementServer::Lock. The gateway passes 0 and 2 only.
enum LockPolicy
{
    LOCK_POLICY_WAIT = 0,   // exclusive, waits until the tree is free
    LOCK_POLICY_SHARED = 1, // not offered to gateway callers
    LOCK_POLICY_TRY = 2     // exclusive, fails at once when another thread holds the tree
};

// One property value: a 16-bit property id and a run of 0 to 65535 bytes, or no value at all.
class HOST_API Property
{
public:
    explicit Property(unsigned short propertyId);
    Property(const Property& other);
    Property& operator=(const Property& other);
    ~Property();

    bool IsEmpty();
    void* GetData(unsigned short* size);
    void SetData(void* data, unsigned short size);
    unsigned short GetID() const;

private:
    unsigned short m_id;
    bool m_hasValue;
    std::string m_bytes;
};

class HOST_API CTreeItem
{
public:
    unsigned int GetUUID() const;

protected:
    explicit CTreeItem(unsigned int uuid) : m_uuid(uuid) {}
    unsigned int m_uuid;
};

// A handle that designates one element of the tree by its uuid. Constructing one checks nothing;
// the operations report an unknown uuid through their results.
class HOST_API Element : public CTreeItem
{
public:
    Element();
    explicit Element(unsigned int uuid);
    Element(const Element& other);
    Element& operator=(const Element& other);
    ~Element();

    unsigned short GetType();
    Property GetPropertyByPropertyID(unsigned short propertyId);
    int SetProperty(Property& property, bool bSilent);
    int Validate(bool bRecursive);
    Element GetParent(int* error);
    std::list<Element> GetChildrenList();
    std::list<Element> GetReferenceRelations(unsigned short relationType, bool bForward);
    int SubscribeByElement(unsigned int eventId, bool bOneShot, unsigned int pid);
    int Un_SubscribeByElement(unsigned int eventId, unsigned int pid);
    unsigned int GetState(unsigned short stateId);
    int SetState(unsigned short stateId, unsigned int value, bool bSilent);
    int ExecuteCommand(unsigned short commandId, Element* source, void* data, unsigned short size,
                       bool bSilent);
};

// Visitor of ElementServer::EnumElement: returns false to end the enumeration; setting the bool
// to true skips the children of the element just visited.
typedef bool (*ElementVisitor)(Element& element, void* context, bool& bSkipChildren);

// The process-wide holder of the element tree.
class HOST_API ElementServer
{
public:
    static ElementServer* GetElementServer();

    Element GetRoot(int* error);
    int Lock(LockPolicy policy);
    int UnLock();
    int OpenEventDispatcher();
    int CloseEventDispatcher();

    Element AddElement(Element* parent, unsigned short type, bool bCheckChildType, int* error,
                       bool bValidate);
    int DeleteElement(Element& element, bool bChildrenOnly);
    int DeleteElementWaitForNoticication(Element& element);

    // Searches below a start element, depth first in child order. bChildrenOnly limits them to
    // the start's direct children; bIncludeStart lets the start element itself match.
    Element GetElementByProperty(Element const* start, Property* property, int* error,
                                 bool bChildrenOnly, bool bIncludeStart);
    Element GetElementByType(Element const* start, unsigned short type, int* error,
                             bool bChildrenOnly, bool bIncludeStart);
    void EnumElement(Element const* start, bool (*visitor)(Element&, void*, bool&), void* context,
                     bool bChildrenOnly, bool bIncludeStart);
    Element FindElementWithTypeChain(const unsigned short* chain, int* error);

    int SubscribeByType(unsigned short type, unsigned int eventId, bool bOneShot, unsigned int pid);
    int Un_SubscribeByType(unsigned short type, unsigned int eventId, unsigned int pid);

    int AddReferenceRelation(Element& holder, Element& target, unsigned short relationType,
                             bool bReplace);
    int DeleteReferenceRelation(Element& holder, Element& target, unsigned short relationType,
                                bool bAllOfType);

private:
    ElementServer() = default;
};

#endif
