// The sandbox on a system without the call that keeps names within its directory.
#include "tests/expect.h"
#include "tests/run_program.h"

#include <cerrno>
#include <cstddef>
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

TEST(Sandbox, TellsThatOpenat2CannotBeCalled) {
    const struct {
        Name name;
        unsigned error;
        string why;
    } rows[] = {
        {"missing", ENOSYS, "openat2 is missing, which came with Linux 5.6"},
        {"forbidden", EPERM, "a filter of system calls, as of a container, forbids openat2"},
    };
    forEachRow(rows, [](const auto& row) {
        RunResult run;
        std::thread([&] {
            if (withoutOpenat2(row.error))
                run = runProgram(KXSANDBOX_PROGRAM, {"--", "true"});
        }).join();
        if (run.status < 0)
            GTEST_SKIP() << "no filter of system calls can be had here";
        EXPECT_EQ(run.status, 1);
        expectText("kxsandbox: cannot serve files: " + row.why + "\n", run.err);
    });
}
