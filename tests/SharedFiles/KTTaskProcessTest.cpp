#include "SharedFiles/linux/KTTaskProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

namespace {

/// The descriptors a child started now holds, as "ls" lists them.
std::string childDescriptors() {
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) return {};
    KTTaskProcess child("/bin/sh", "/bin/sh", {"-c", "ls /proc/self/fd"});
    child.launch(KTTaskProcess::kNullDevice, out[1], KTTaskProcess::kNullDevice);
    close(out[1]);
    std::string listing;
    char buf[512];
    ssize_t n;
    while ((n = read(out[0], buf, sizeof buf)) > 0) listing.append(buf, static_cast<size_t>(n));
    close(out[0]);
    child.waitUntilExit();
    return "\n" + listing;
}

TEST(KTTaskProcessTest, AKeptDescriptorReachesNoChildEvenWithoutCloseOnExec) {
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    // Inheritable on purpose, and numbered above anything "ls" opens itself.
    int fds[2] = {fcntl(pipeFds[0], F_DUPFD, 200), pipeFds[1]};
    close(pipeFds[0]);
    ASSERT_GE(fds[0], 200);
    const std::string name = "\n" + std::to_string(fds[0]) + "\n";
    EXPECT_NE(childDescriptors().find(name), std::string::npos);
    KTTaskProcess::keepFromChildren(fds[0]);
    EXPECT_EQ(childDescriptors().find(name), std::string::npos);
    KTTaskProcess::releaseToChildren(fds[0]);
    EXPECT_NE(childDescriptors().find(name), std::string::npos);
    close(fds[0]);
    close(fds[1]);
}

}  // namespace
