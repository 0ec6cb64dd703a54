/* A library that a program loads to prefer its own names (RTLD_DEEPBIND): blocks go both ways. */
#include <stdlib.h>
#include <string.h>

char* plugin_copy(const char* text);
void plugin_release(void* block);

char* plugin_copy(const char* text) {
    return strdup(text);
}

void plugin_release(void* block) {
    free(block);
}
