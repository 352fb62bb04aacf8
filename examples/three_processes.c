/* Three processes share the configuration: a master and two others.  Each
 * changes one variable; every process prints each callback it receives, so
 * the output shows all three changes arriving once in every process, the
 * writer's own included.
 *
 *   ./three_processes [root-directory]
 *
 * Without an argument a temporary directory is used as the file root, so
 * the example never touches the device paths of the host. */
#define _GNU_SOURCE
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <configmanager/cm_host.h>
#include <configmanager/configmanager.h>

static const char* s_name;
/* Counted on the watch thread, read by main: atomic builtins keep it race-free. */
static int s_seen;

static int seen(void) { return __atomic_load_n(&s_seen, __ATOMIC_SEQ_CST); }

static int on_change(int32_t id) {
    uint8_t v = 0;
    CM_GetDataItem(id, &v);
    printf("[%s pid %d] callback: %s (ID %d) = %u\n", s_name, (int)getpid(), CM_GetCMvarTag(id), id, v);
    fflush(stdout);
    __atomic_add_fetch(&s_seen, 1, __ATOMIC_SEQ_CST);
    return 0;
}

static void sleep_ms(long ms) {
    struct timespec ts = {ms / 1000, (ms % 1000) * 1000000L};
    nanosleep(&ts, NULL);
}

/* Starts, registers for the three variables, signals readiness, waits for
 * the go-ahead, writes its own variable and waits to have seen all three. */
static int run(const char* name, int master, int32_t mine, uint8_t value, int ready_fd, int go_fd) {
    static const int32_t vars[3] = {CMS_CONNECT_TIMEOUT, CMS_LINK_INACTIVITY, CMS_RECEIVE_TIMEOUT};
    char c = 0;
    int i;
    s_name = name;
    if (CM_init(master) != 0) return 1;
    for (i = 0; i < 3; i++) CM_Register_Interest(vars[i], on_change);
    if (write(ready_fd, "r", 1) != 1 || read(go_fd, &c, 1) != 1) return 1;
    if (CM_PutDataItem(mine, &value) < 0) return 1;
    for (i = 0; i < 5000 && seen() < 3; i++) sleep_ms(1);
    sleep_ms(200); /* let any duplicate show itself */
    printf("[%s pid %d] saw %d callbacks\n", name, (int)getpid(), seen());
    fflush(stdout);
    CM_Exit();
    return seen() == 3 ? 0 : 1;
}

/* A root made here goes when the example ends, however it ends (the
   children leave with _exit and do not run this). */
static char made[32];
static void removeMadeRoot(void) {
    char cmd[64];
    snprintf(cmd, sizeof cmd, "rm -rf %s", made);
    if (made[0] != '\0' && system(cmd) != 0) fprintf(stderr, "could not remove %s\n", made);
}

int main(int argc, char** argv) {
    char tmp[] = "/tmp/cm-example.XXXXXX";
    const char* root = argc > 1 ? argv[1] : mkdtemp(tmp);
    const char* names[3] = {"master", "proc-A", "proc-B"};
    const int32_t mine[3] = {CMS_CONNECT_TIMEOUT, CMS_LINK_INACTIVITY, CMS_RECEIVE_TIMEOUT};
    int ready[2], go[2], i, failed = 0;
    pid_t pids[3];
    char cmd[600];

    if (root == NULL) return 1;
    if (root == tmp) {
        snprintf(made, sizeof made, "%s", tmp);
        atexit(removeMadeRoot);
    }
    snprintf(cmd, sizeof cmd, "mkdir -p %s/tmp %s/var/AppData/config", root, root);
    if (system(cmd) != 0 || CM_Host_SetRootDirectory(root) != 0) return 1;
    if (pipe(ready) != 0 || pipe(go) != 0) return 1;
    printf("file root: %s\n", root);
    fflush(stdout);

    for (i = 0; i < 3; i++) {
        pids[i] = fork();
        if (pids[i] == 0) _exit(run(names[i], i == 0, mine[i], (uint8_t)(10 * (i + 1)), ready[1], go[0]));
        if (i == 0) { /* the master creates the files before the others open them */
            char c;
            if (read(ready[0], &c, 1) != 1) return 1;
        }
    }
    for (i = 1; i < 3; i++) {
        char c;
        if (read(ready[0], &c, 1) != 1) return 1;
    }
    if (write(go[1], "ggg", 3) != 3) return 1;
    for (i = 0; i < 3; i++) {
        int status = 0;
        waitpid(pids[i], &status, 0);
        failed |= !WIFEXITED(status) || WEXITSTATUS(status) != 0;
    }
    printf(failed ? "FAILED\n" : "every process saw every change once\n");
    return failed;
}
