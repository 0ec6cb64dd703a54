/* Goes on as itself by each call that replaces a program, after one that fails, and ends by a call that runs no
 * handlers. Usage: replaced HOW... x, where each letter of HOW is a call, the last one the end. */
#include <fcntl.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/* Nothing is left locked for others by what fails. */
static void* other(void* block) {
    memset(malloc(2000), 1, 2000);
    free(block);
    return NULL;
}

int main(int argc, char** argv) {
    if (argc != 3 || strcmp(argv[2], "x") != 0) {
        return 2;
    }
    char* const self = argv[0];
    char* const rest = argv[1] + 1;
    char* const arguments[] = {self, rest, argv[2], NULL};
    memset(malloc(1000), 1, 1000);
    execl("/no/such/program", "program", (char*)NULL);
    pthread_t thread;
    pthread_create(&thread, NULL, other, malloc(500));
    pthread_join(thread, NULL);
    switch (argv[1][0]) {
    case 'v':
        execv(self, arguments);
        break;
    case 'p':
        execvp(self, arguments);
        break;
    case 'P':
        execvpe(self, arguments, environ);
        break;
    case 'e':
        execve(self, arguments, environ);
        break;
    case 'f':
        fexecve(open(self, O_RDONLY | O_CLOEXEC), arguments, environ);
        break;
    case 'a':
        execveat(AT_FDCWD, self, arguments, environ, 0);
        break;
    case 'l':
        execl(self, self, rest, argv[2], (char*)NULL);
        break;
    case 'L':
        execlp(self, self, rest, argv[2], (char*)NULL);
        break;
    case 'E':
        execle(self, self, rest, argv[2], (char*)NULL, environ);
        break;
    case 'q':
        quick_exit(3);
    case '_':
        _Exit(3);
    }
    return 1;
}
