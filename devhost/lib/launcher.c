/*
 * Entry point of every simulated host tool in the sandbox.
 *
 * A script with a "#!" line loses the argv[0] its caller wrote (the kernel passes the resolved
 * file name instead), but commands.log must show the tool as it was called ("reboot", not
 * "/usr/sbin/reboot"). This small binary is copied to each tool path and hands the untouched
 * argument vector, together with its own path (which names the tool), to the Python side.
 * Its process name is then "python3", so `killall redis-server` leaves the logging wrapper of
 * the store alive and only stops the store itself, as on the device.
 */
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

/* The sandbox proof looks for this text to tell a simulated tool from a real one. */
__attribute__((used)) static const char marker[] = "devhost-simulated-tool";

int main(int argc, char **argv)
{
    char self[PATH_MAX];
    ssize_t len = readlink("/proc/self/exe", self, sizeof self - 1);
    if (len < 0) {
        perror("devhost tool: /proc/self/exe");
        return 127;
    }
    self[len] = '\0';

    char **args = calloc((size_t)argc + 5, sizeof *args);
    if (!args)
        return 127;
    int n = 0;
    args[n++] = "python3";
    args[n++] = "-IS";
    args[n++] = "/usr/lib/devhost/simtool.py";
    args[n++] = self;
    for (int i = 0; i < argc; ++i)
        args[n++] = argv[i];
    args[n] = NULL;
    execv("/usr/bin/python3", args);
    perror("devhost tool: /usr/bin/python3");
    return 127;
}
