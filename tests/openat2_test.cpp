// The sandbox on a system without the call that keeps names within its directory.
#include "tests/run_program.h"

#include <cerrno>
#include <cstddef>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <linux/unistd.h>
#include <sys/prctl.h>
#include <thread>

/// Has openat2 fail with `uError` in this thread and in what it starts, as a container's filter
/// does.
static bool withoutOpenat2(unsigned uError) {
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_openat2, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | uError),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{std::size(filter), filter};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

TEST(Openat2, IsMissedAtTheStart) {
    static const struct {
        unsigned error;
        const char* why;
    } rows[] = {
        {ENOSYS, "openat2 is missing, which came with Linux 5.6"},
        {EPERM, "a filter of system calls, as of a container, forbids openat2"},
    };
    for (const auto& row : rows) {
        bool fFiltered = false;
        Outcome outcome;
        std::thread([&] {
            fFiltered = withoutOpenat2(row.error);
            if (fFiltered)
                outcome = runProgram(KXSANDBOX_PROGRAM, {"--", "true"});
        }).join();
        if (!fFiltered)
            GTEST_SKIP() << "no filter of system calls can be had here";
        EXPECT_EQ(1, outcome.status);
        EXPECT_EQ(std::string("kxsandbox: cannot serve files: ") + row.why + "\n", outcome.err);
    }
}
