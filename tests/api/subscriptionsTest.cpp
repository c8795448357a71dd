// Subscriptions with their fault lines, state values, commands and the ID string by uuid.
#include "apiPanel.h"

namespace
{

class SubscriptionsTest : public ApiPanelTest
{
protected:
    // The log lines written since the last call, as "level:module:text".
    static std::vector<std::string> takeLog()
    {
        std::vector<std::string> lines;
        for (const LogLine& line : logLines())
            lines.push_back(std::to_string(line.level) + ":" + line.module + ":" + line.text);
        logLines().clear();
        return lines;
    }
};

TEST_F(SubscriptionsTest, SubscriptionsAndTheirFaultLines)
{
    const ApiTree tree = buildTree();
    const std::string tail =
        ",            uuid=" + hexText(tree.probe) + ", event=0x60021, mError=0x80070004\n";
    const char* tag = ":<GatewayApiLib>:";
    const struct
    {
        UINT32 pid;
        std::string loginLine;
    } rows[] = {{11, "Error: EventLogin must before!! Module name:<GatewayApiLib>\n"},
                {47, "Error: EventLogin must before!! Module id:47\n"},
                {24, "Error: EventLogin must before!! Module id:24\n"}}; // a row without a name
    for (const auto& row : rows)
    {
        EXPECT_EQ(EGW_ElementServerSubscribeByElement(row.pid, tree.probe, 0x60021, {}), 0);
        EXPECT_EQ(takeLog(),
                  (std::vector<std::string>{
                      "3" + (tag + ("Fault:SubscribeByElement,pid=" + hexText(row.pid) + tail)),
                      "4" + (tag + row.loginLine)}));
    }
    // Any other refusal is passed on after the fault line.
    EXPECT_EQ(EGW_ElementServerSubscribeByElement(11, tree.probe + 1000, 0x60021, {}), 1);
    EXPECT_EQ(takeLog().size(), 1u);
    panelsim::loginModule(11);
    EXPECT_EQ(EGW_ElementServerSubscribeByElement(11, tree.probe, 0x60021, {}), 0);
    EXPECT_EQ(EGW_ElementServerSubscribeByType(11, 0x70400, 0x60021, {}), 0);
    ASSERT_EQ(panelsim::subscriptions().size(), 2u);
    EXPECT_TRUE(panelsim::subscriptions()[1].byType &&
                panelsim::subscriptions()[1].typeOrUuid == 0x0400u);

    panelsim::injectFault("Element::Un_SubscribeByElement", panelsim::FaultKind::Fail, 0, 1,
                          int(0x80070004u));
    EXPECT_EQ(EGW_ElementServerUnSubscribeByElement(11, tree.probe, 0x60021, {}), int(0x80070004u));
    EXPECT_EQ(takeLog(), std::vector<std::string>{
                             "3" + (tag + ("Fault:Un_SubscribeByElement,pid=0xb" + tail))});
    EXPECT_EQ(EGW_ElementServerUnSubscribeByElement(11, tree.probe, 0x60021, {}), 0);
    EXPECT_TRUE(takeLog().empty());
    EXPECT_EQ(EGW_ElementServerUnSubscribeByType(11, 0x70400, 0x60021, {}), 0);
    EXPECT_TRUE(panelsim::subscriptions().empty());
    EXPECT_EQ(EGW_ElementServerUnSubscribeByType(11, 0x70400, 0x60021, {}), 4);
}

TEST_F(SubscriptionsTest, StatesCommandsAndIdString)
{
    const ApiTree tree = buildTree();
    UINT32 value = 99;
    EXPECT_EQ(EGW_ELementServerGetStateValueByUuid(value, tree.probe, 0x80010, {}), FALSE);
    EXPECT_EQ(value, 0u);
    EXPECT_EQ(EGW_ELementServerSetStateValueByUuid(0x60007, tree.probe, 0x80010, {}), TRUE);
    EXPECT_EQ(EGW_ELementServerGetStateValueByUuid(value, tree.probe, 0x0010, {}), TRUE);
    EXPECT_EQ(value, 0x60007u);
    EXPECT_EQ(EGW_ELementServerSetStateValueByUuid(0x60002, tree.probe, 0x80010, {}), FALSE);

    EXPECT_EQ(EGW_ElementServerExecuteCommand(tree.probe, 0x10021, 0, "abc", 3, {}), 0);
    EXPECT_EQ(EGW_ElementServerExecuteCommand(tree.probe, 0x0021, tree.panel, nullptr, 0, {}), 0);
    EXPECT_EQ(EGW_ElementServerExecuteCommand(tree.probe, 0x0022, 0, nullptr, 0, {}),
              2); // unknown command
    const std::vector<panelsim::ExecutedCommand> commands = panelsim::executedCommands();
    ASSERT_EQ(commands.size(), 2u);
    EXPECT_TRUE(commands[0].source == 0 && commands[0].parameters == "abc");
    EXPECT_TRUE(commands[1].command == 0x21 && commands[1].source == tree.panel);

    std::string text = "earlier text";
    EGW_ElementServerGetIDStringOfElement(text, tree.probe, {});
    EXPECT_EQ(text, "01");
    EGW_ElementServerGetIDStringOfElement(text, tree.site, {});
    EXPECT_EQ(text, "");
}

} // namespace
