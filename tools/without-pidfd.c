/* Runs a command on which waitid(P_PIDFD, ...) fails with EINVAL, as on a
 * kernel older than 5.4, for it and everything it starts.
 *
 * Why: qemu-arm 7.2 rejects clone(CLONE_PIDFD) with EINVAL but passes
 * waitid(P_PIDFD) through to the host kernel, which answers as if pidfds
 * worked. Qt 5.15's QProcess takes that answer as its cue to start children
 * with CLONE_PIDFD, so under the emulator every start fails, and the failed
 * QProcess keeps -1 as its pid: its kill() then becomes kill(-1, SIGKILL).
 * Seeing no pidfd support, Qt falls back to a plain fork.
 *
 *   without-pidfd command [argument...]
 */
#include <errno.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#ifndef P_PIDFD
#define P_PIDFD 3
#endif

int main(int argc, char** argv)
{
    struct sock_filter filter[] = {
        /* Only x86_64 calls are looked at; qemu makes all of its calls as such. */
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AUDIT_ARCH_X86_64, 0, 5),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_waitid, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, args[0])),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, P_PIDFD, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EINVAL),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    struct sock_fprog program = { sizeof filter / sizeof filter[0], filter };

    if (argc < 2) {
        fprintf(stderr, "usage: %s command [argument...]\n", argv[0]);
        return 2;
    }
    /* Without CAP_SYS_ADMIN a filter needs no_new_privs; root keeps set-user-ID working. */
    if (geteuid() != 0 && prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) < 0) {
        fprintf(stderr, "without-pidfd: no_new_privs: %s\n", strerror(errno));
        return 1;
    }
    if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) < 0) {
        fprintf(stderr, "without-pidfd: seccomp: %s\n", strerror(errno));
        return 1;
    }
    execvp(argv[1], argv + 1);
    fprintf(stderr, "without-pidfd: %s: %s\n", argv[1], strerror(errno));
    return 127;
}
