#include "process/OwnPid.h"

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

using VelCore::OwnPid;

namespace {

TEST(OwnPid, IsTheIdOfThisProcess)
{
    EXPECT_EQ(getpid(), OwnPid());
}

TEST(OwnPid, AChildAndItsChildHaveTheirOwn)
{
    EXPECT_EQ(getpid(), OwnPid());
    const pid_t child = fork();
    if (child == 0) {
        const bool isRight = OwnPid() == getpid();
        const pid_t grandchild = fork();
        if (grandchild == 0)
            _exit(OwnPid() == getpid() ? 0 : 1);
        int status = -1;
        waitpid(grandchild, &status, 0);
        _exit(isRight && status == 0 && OwnPid() == getpid() ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_EQ(getpid(), OwnPid());
}

} // namespace
