/* One process sets a text, a number, an IP address and a password; a second
 * process prints each value from the callback that tells it of the change
 * (the password deciphered with CM_Get_Passwd).
 *
 *   ./values_two_processes [root-directory]
 *
 * Without an argument a temporary directory is used as the file root, so
 * the example never touches the device paths of the host. */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <configmanager/cm_host.h>
#include <configmanager/configmanager.h>

static const int32_t s_vars[4] = {UNIT_NAME, CMS_CONNECT_TIMEOUT, CURRENT_IP4_ADDRESS, CURRENT_FILE_TRANSFER_PASSWORD};
static int s_seen; /* bumped on the watch thread, read by main */

static int seen(void) { return __atomic_load_n(&s_seen, __ATOMIC_SEQ_CST); }

static int on_change(int32_t id) {
    char text[CM_VALUE_TEXT_SIZE];
    if (id == CURRENT_FILE_TRANSFER_PASSWORD)
        CM_Get_Passwd(id, text);
    else
        CM_Get_Var_Value_As_String(id, text);
    printf("[reader pid %d] %s = %s\n", (int)getpid(), CM_GetCMvarTag(id), text);
    fflush(stdout);
    __atomic_add_fetch(&s_seen, 1, __ATOMIC_SEQ_CST);
    return 0;
}

static void sleep_ms(long ms) {
    struct timespec ts = {ms / 1000, (ms % 1000) * 1000000L};
    nanosleep(&ts, NULL);
}

/* Starts, registers for the four variables, says it is ready and waits to
 * have printed all four. */
static int reader(int ready_fd) {
    int i;
    if (CM_init(0) != 0) return 1;
    for (i = 0; i < 4; i++) CM_Register_Interest(s_vars[i], on_change);
    if (write(ready_fd, "r", 1) != 1) return 1;
    for (i = 0; i < 10000 && seen() < 4; i++) sleep_ms(1);
    CM_Exit();
    return seen() == 4 ? 0 : 1;
}

static int writer(int ready_fd) {
    struct sockaddr_in addr;
    uint8_t timeout = 42;
    char c;
    int rc = 0;
    if (CM_init(1) != 0) return 1;
    if (read(ready_fd, &c, 1) != 1) return 1;
    memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    inet_pton(AF_INET, "192.0.2.10", &addr.sin_addr);
    rc |= CM_Set_Variable(UNIT_NAME, "gateway-7");
    rc |= CM_Set_Variable(CMS_CONNECT_TIMEOUT, &timeout);
    rc |= CM_Set_Variable(CURRENT_IP4_ADDRESS, &addr);
    rc |= CM_Set_Variable(CURRENT_FILE_TRANSFER_PASSWORD, "s3cret!");
    CM_Exit();
    return rc != 0;
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
    int ready[2], status = 0, failed = 0;
    pid_t pid;
    char cmd[600];

    if (root == NULL) return 1;
    if (root == tmp) {
        snprintf(made, sizeof made, "%s", tmp);
        atexit(removeMadeRoot);
    }
    snprintf(cmd, sizeof cmd, "mkdir -p %s/tmp %s/var/AppData/config", root, root);
    if (system(cmd) != 0 || CM_Host_SetRootDirectory(root) != 0 || pipe(ready) != 0) return 1;
    fflush(stdout);
    /* The writer is the master and creates the files; the reader waits for them. */
    pid = fork();
    if (pid == 0) _exit(reader(ready[1]));
    failed |= writer(ready[0]);
    waitpid(pid, &status, 0);
    failed |= !WIFEXITED(status) || WEXITSTATUS(status) != 0;
    printf(failed ? "FAILED\n" : "the reader printed all four values\n");
    return failed;
}
