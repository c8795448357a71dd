// GUID numbering from the root's counter. Concurrent, locked callers are the reliability stress
// test's.
#include "compositeTest.h"

namespace
{

constexpr UINT32 kGuid = 0x301A4, kCounter = 0x301A6;

const char* const kTypes = R"({"types": [
  {"id": "0x70169", "properties": [{"id": "0x301A6", "storage": 4, "default": "0"},
                                   {"id": "0x301A4", "storage": 4, "default": "0"}]},
  {"id": "0x70170", "properties": [{"id": "0x301A4", "storage": 4, "default": "0"}]}]})";

UINT32 intProperty(UINT32 uuid, UINT32 property)
{
    UINT32 value = 0xDEAD;
    EXPECT_EQ(EGW_ElementServerGetPropertyIntDataById(uuid, property, value, nullptr), TRUE);
    return value;
}

} // namespace

class ElementGuid : public CompositeTest
{
protected:
    void SetUp() override
    {
        CompositeTest::SetUp();
        load(kTypes);
        root_ = add(0, 0x70169);
    }

    UINT32 root_ = 0;
    void* client_ = GetThriftClientInstance();
};

TEST_F(ElementGuid, NumbersStartAtOneAndAreGivenOnce)
{
    const UINT32 first = add(root_, 0x70170), second = add(root_, 0x70170);
    const UINT32 keeps = add(root_, 0x70170);
    ASSERT_EQ(EGW_ElementServerSetPropertyIntDataById(keeps, kGuid, 7, nullptr), TRUE);
    const auto trace = traceOf([&] { EGW_ELementServerManagerElementGUID(first, client_); });
    const auto writes = callsWith(trace, "::SetProperty(");
    ASSERT_EQ(writes.size(), 2u); // the element's own number first, then the counter
    EXPECT_TRUE(writes[0].find(hexText(first)) != std::string::npos &&
                writes[1].find(hexText(root_)) != std::string::npos);
    for (UINT32 uuid : {keeps, first})
        EGW_ELementServerManagerElementGUID(uuid, client_);
    EXPECT_EQ(EGW_ELementServerValidateElementByUuid(second, nullptr), 0);
    EXPECT_EQ(intProperty(first, kGuid), 1u);
    EXPECT_EQ(intProperty(second, kGuid), 2u);
    EXPECT_EQ(intProperty(keeps, kGuid), 7u);
    EXPECT_EQ(intProperty(root_, kCounter), 2u);
    EXPECT_TRUE(logLines().empty() && assertReports().empty());
}

TEST_F(ElementGuid, BrokenCounterIsReported)
{
    const std::string kError = "<EGW_ELementServerManagerElementGUID>Error:" + std::string(12, ' ');
    // Faulted operation, calls of it that go through first, the reported message.
    const std::tuple<const char*, unsigned, std::string> cases[] = {
        {"Element::GetPropertyByPropertyID", 1, "read PROPERTY_CIE_AVAILABLE_ID value fault!!"},
        {"Element::SetProperty", 0, "set PROPERTY_GUID value fault!!"},
        {"Element::SetProperty", 1, "set PROPERTY_CIE_AVAILABLE_ID value fault!!"},
    };
    std::vector<UINT32> elements;
    for (const auto& [operation, skip, message] : cases)
    {
        assertReports().clear();
        elements.push_back(add(root_, 0x70170));
        panelsim::injectFault(operation, panelsim::FaultKind::Fail, skip);
        EGW_ELementServerManagerElementGUID(elements.back(), client_);
        panelsim::clearFaults();
        EXPECT_EQ(reportedExpressions(),
                  std::vector<std::string>{"!\"" + kError + message + "\\n\""});
    }
    // Only the failed read of the counter is logged, with both uuids.
    ASSERT_EQ(logLines().size(), 1u);
    EXPECT_EQ(logLines()[0].level, 4);
    EXPECT_EQ(logLines()[0].text, kError + std::get<2>(cases[0]) + std::string(12, ' ') +
                                      "uuid=" + hexText(elements[0]) +
                                      ", mRootUuid=" + hexText(root_) + "\n");
}
