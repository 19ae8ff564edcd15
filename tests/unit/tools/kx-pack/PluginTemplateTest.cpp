#include "PluginTemplate.h"

#include <gtest/gtest.h>

#include "LuaSource.h"

TEST(PluginTemplate, ModuleIsNamedAfterThePluginInLowerCase)
{
    std::vector<TemplateFile> files;

    ASSERT_FALSE(MakePlugin("My_Rules2", files));

    ASSERT_EQ(2u, files.size());
    EXPECT_EQ("README.md", files[0].name);
    EXPECT_EQ("files/monitor/rules/my_rules2.lua", files[1].name);
    EXPECT_FALSE(CheckLuaText(files[1].content, files[1].name));
    for (const TemplateFile& file : files)
        EXPECT_EQ(std::string::npos, file.content.find('@')) << file.content;
    EXPECT_NE(std::string::npos, files[0].content.find("kx-pack plugin files --name My_Rules2"));
}

TEST(PluginTemplate, NameThatIsNoModuleNameIsRefused)
{
    std::vector<TemplateFile> files;
    for (const char* wrong : {"", "1st", "_x", "a-b", "a.b", "a/b", "../x", "a b", "\xC3\xA9t\xC3\xA9"}) {
        const auto failure = MakePlugin(wrong, files);
        ASSERT_TRUE(failure) << wrong;
        EXPECT_EQ(Status::Failed, failure->status);
        EXPECT_EQ(0u, failure->text.find(std::string("'") + wrong + "' is no name for a plug-in")) << failure->text;
    }
}
