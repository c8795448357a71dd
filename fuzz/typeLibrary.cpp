// The simulator's type-library loader over any text. A text it refuses must give one line naming
// the source and leave the library in force exactly as it was; a text it takes must serve the
// gateway's type-library queries, cycles and all, after which the sample library is put back.
#include <vector>

#include "elementGateway.h"
#include "fuzzSupport.h"
#include "panelsim/panelsim.h"

namespace
{

constexpr UINT32 kTypes[] = {0x70169, 0x70170, 0x70204, 0x70172, 0x70048, 0x70292, 0x70007};

// What the gateway reads of the library in force, for a spread of sample types and groups.
std::string fingerprint()
{
    std::string text;
    for (UINT32 type : kTypes)
    {
        std::vector<EGW_PropertyDef_Thrift> properties;
        std::vector<EGW_RelationDef_Thrift> relations;
        std::vector<unsigned> commands;
        std::vector<unsigned> groups;
        text += std::to_string(EGW_ELementServerGetPropertyInformationList(type, properties)) + " " +
                std::to_string(EGW_ELementServerGetRelationList(type, relations)) + " " +
                std::to_string(EGW_ELementServerGetCommandListByElementTypeId(commands, type)) + " " +
                std::to_string(EGW_BASIC_GetVisibleByElementType(type)) + " ";
        EGW_ElementServerGetStateGroupIdListByElementTypeId(groups, type);
        for (unsigned group : groups)
            text += std::to_string(group) + ":" + std::to_string(EGW_GetDefaultStatusOfGroup(group)) + " ";
        for (const auto& p : properties)
            text += std::to_string(EGW_ElementServerGetPropertyTypeById(p.PropertyID)) +
                    (IsNumberTypeByPropertyID(p.PropertyID, nullptr) ? "n " : " ");
        text += "\n";
    }
    return text;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const std::string sample = (panelsim::loadSampleTypeLibrary(), fingerprint());
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::string error;
    if (!panelsim::loadTypeLibraryText(text, "fuzz.json", error))
    {
        FUZZ_CHECK(error.compare(0, 11, "fuzz.json: ") == 0 && error.size() > 11);
        FUZZ_CHECK(error.find('\n') == std::string::npos);
        FUZZ_CHECK(fingerprint() == sample);
        return 0;
    }
    // The gateway's queries over whatever the text defined, child-type walks through cycles too.
    fingerprint();
    for (UINT32 type : kTypes)
    {
        std::vector<unsigned> children;
        FUZZ_CHECK(EGW_BASIC_THRIFT_GetAllChildrenElementType(children, type) == TRUE);
    }
    panelsim::loadSampleTypeLibrary();
    return 0;
}
