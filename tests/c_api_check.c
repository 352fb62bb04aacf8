/* A plain C program against the public headers and the shared library: it
 * proves the headers are C, finds a variable by name and by its generated
 * constant, and drives one write through to its change callback. */
#define _GNU_SOURCE
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <configmanager/cm_host.h>
#include <configmanager/configmanager.h>

static int s_changes; /* written by the watch thread, read by main */

static int on_change(int32_t id) {
    if (id == UNIT_NAME) __atomic_add_fetch(&s_changes, 1, __ATOMIC_SEQ_CST);
    return 0;
}

#define CHECK(cond) \
    if (!(cond)) return fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond), 1

int main(void) {
    char root[] = "/tmp/cm-c-check.XXXXXX";
    char cmd[512];
    int32_t id = -1;
    char name[44];
    int i;
    struct timespec ms = {0, 1000000};

    CHECK(CM_GetVarIdFromName("UNIT_NAME", 9, &id) == 0);
    CHECK(id == UNIT_NAME && UNIT_NAME == 3254);

    CHECK(mkdtemp(root) != NULL);
    snprintf(cmd, sizeof cmd, "mkdir -p %s/tmp %s/var/AppData/config", root, root);
    CHECK(system(cmd) == 0);
    CHECK(CM_Host_SetRootDirectory(root) == 0);

    CHECK(CM_init(1) == 0);
    CHECK(CM_init(1) == CM_ERR_ALREADY_STARTED);
    CHECK(CM_Register_Interest(UNIT_NAME, on_change) == 0);
    CHECK(CM_GetDataItem(UNIT_NAME, name) == 0);
    CHECK(strcmp(name, "Unknown") == 0);

    memset(name, 0, sizeof name);
    strcpy(name, "gateway-7");
    CHECK(CM_PutDataItem(UNIT_NAME, name) == 1);
    for (i = 0; i < 5000 && __atomic_load_n(&s_changes, __ATOMIC_SEQ_CST) == 0; i++) nanosleep(&ms, NULL);
    CHECK(__atomic_load_n(&s_changes, __ATOMIC_SEQ_CST) == 1);
    memset(name, 0, sizeof name);
    CHECK(CM_GetDataItem(UNIT_NAME, name) == 0);
    CHECK(strcmp(name, "gateway-7") == 0);
    /* General defaults leave the unit name (not a group-3 setting) alone. */
    CHECK(CM_Load_Defaults() == 0);
    CHECK(CM_GetDataItem(UNIT_NAME, name) == 0 && strcmp(name, "gateway-7") == 0);
    CHECK(CM_Exit() == 0);

    snprintf(cmd, sizeof cmd, "rm -rf %s", root);
    CHECK(system(cmd) == 0);
    printf("c_api_check: ok\n");
    return 0;
}
