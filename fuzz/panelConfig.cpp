// The panel-configuration loader over any text, into an empty tree. A file it refuses must give
// one line naming the source and leave the tree empty; a file it takes must have put exactly its
// elements into the tree, the first of them as the root.
#include "fuzzSupport.h"
#include "panelsim/panelsim.h"
#include "tools/panelConfig.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const panelconfig::Vocabulary vocabulary = [] {
        panelsim::setLogSink([](int, const std::string&, const std::string&) {});
        panelconfig::Vocabulary names;
        std::string error;
        FUZZ_CHECK(panelconfig::Vocabulary::fromTypeLibraryText(panelsim::sampleTypeLibraryText(),
                                                                "sample", names, error));
        return names;
    }();
    panelsim::reset();
    panelsim::setLogSink([](int, const std::string&, const std::string&) {});
    const std::string text(reinterpret_cast<const char*>(data), size);
    panelconfig::LoadedPanel panel;
    std::string error;
    if (!panelconfig::loadPanelText(text, "fuzz.json", vocabulary, panel, error))
    {
        FUZZ_CHECK(error.compare(0, 11, "fuzz.json: ") == 0 && error.size() > 11);
        FUZZ_CHECK(error.find('\n') == std::string::npos);
        FUZZ_CHECK(panelsim::elementCount() == 0);
    }
    else
    {
        FUZZ_CHECK(!panel.elements.empty());
        FUZZ_CHECK(panelsim::elementCount() == panel.elements.size());
        FUZZ_CHECK(EGW_ELementServerGetTreeRoot(nullptr) == panel.elements[0].uuid);
    }
    FUZZ_CHECK(panelsim::liveElements() == 0 && panelsim::liveProperties() == 0);
    return 0;
}
