// Builds a one-element tree in the simulator through the installed gateway and reads it back: the
// type, the tree root, the children list and the ID string cross the interface by value, through a
// std::vector and through a std::string, so a mismatch of the library's and the program's
// libstdc++ string ABI or of the installed headers shows here.
#include <cstdio>
#include <string>
#include <vector>

#include "elementGateway.h"
#include "panelsim/panelsim.h"

namespace
{

// The panel element type of the sample type library, the root of a panel's tree.
constexpr UINT32 kPanelType = 0x70169;

int fail(const char* what)
{
    std::fprintf(stderr, "gatewayConsumer: %s\n", what);
    return 1;
}

} // namespace

int main()
{
    panelsim::reset();
    const UINT32 root = EGW_ELementServerAddElementByType(0, kPanelType, false, nullptr);
    if (root == 0)
        return fail("adding the root failed");
    if (EGW_ElementServerGetElementTypeByUuid(root, nullptr) != kPanelType)
        return fail("the root reads back with another type");
    if (EGW_ELementServerGetTreeRoot(nullptr) != root)
        return fail("the tree root is not the element just added");

    std::vector<int> children{-1};
    EGW_ELementServerGetChildrenUuidList(children, root, nullptr);
    if (children.size() != 1 || children[0] != -1)
        return fail("a childless root changed the children list");

    std::string idString = "stale";
    EGW_ElementServerGetIDStringOfElement(idString, root, nullptr);
    if (idString.empty() || idString == "stale")
        return fail("no ID string for the root");

    std::printf("root 0x%x of type 0x%x, ID string %s\n", root, kPanelType, idString.c_str());
    return 0;
}
