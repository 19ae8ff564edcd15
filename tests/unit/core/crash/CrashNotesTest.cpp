#include "crash/CrashNotes.h"

#include <algorithm>
#include <string>

#include <gtest/gtest.h>

#include <VelCore/CrashHandler.h>

using VelCore::NoteForCrash;

namespace {

std::string Notes()
{
    std::string memory(65536, '#');
    VelCore::CTextBuffer text(memory.data(), memory.size());
    VelCore::AddCrashNotes(text);
    return std::string(text.Text());
}

bool HasLine(const std::string& line)
{
    return ("\n" + Notes()).find("\n" + line + "\n") != std::string::npos;
}

// The notes are those of the process, so every test has names of its own.

TEST(CrashNotes, LastValueOfANameCounts)
{
    NoteForCrash("last", "first");
    NoteForCrash("last", "second");

    EXPECT_TRUE(HasLine("last=second"));
    EXPECT_EQ(std::string::npos, Notes().find("first"));
}

TEST(CrashNotes, EmptyValueIsAValue)
{
    NoteForCrash("empty", "");
    EXPECT_TRUE(HasLine("empty="));
}

TEST(CrashNotes, ValueStaysOnItsLine)
{
    NoteForCrash("forged", "x\nphase=main");
    EXPECT_TRUE(HasLine("forged=x\\nphase=main"));
}

TEST(CrashNotes, LongValueIsCut)
{
    NoteForCrash("long", std::string(1024, 'a') + "b");
    EXPECT_TRUE(HasLine("long=" + std::string(1024, 'a')));
}

TEST(CrashNotes, ThirtySecondNameIsTheLast)
{
    for (int number = 0; number < 40; ++number)
        NoteForCrash("name" + std::to_string(number), "x");

    const std::string notes = Notes();
    EXPECT_EQ(32, std::count(notes.begin(), notes.end(), '\n'));
    EXPECT_FALSE(HasLine("name39=x"));
}

} // namespace
