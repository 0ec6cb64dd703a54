/* What handlers and children of vfork do while the thread is in the midst of an allocation. Usage: handlers HOW. */
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

static int ends;
static volatile int forked;

/* A child that ends at once, which POSIX lets a handler make. */
static void on_alarm(int number) {
    (void)number;
    if (ends) {
        _exit(0);
    }
    const pid_t child = fork();
    if (child == 0) {
        _exit(3);
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || status != 3 << 8) {
        _exit(1);
    }
    ++forked;
}

static void churn(int forks) {
    static void* held[100];
    for (int i = 0; forked < forks; ++i) {
        free(held[i % 100]);
        held[i % 100] = malloc((size_t)i * 37 % 3000);
    }
}

static void handle(long microseconds) {
    const struct itimerval often = {{0, microseconds}, {0, microseconds}};
    signal(SIGALRM, on_alarm);
    setitimer(ITIMER_REAL, &often, NULL);
}

int main(int argc, char** argv) {
    const char* const how = argc > 1 ? argv[1] : "";
    if (strcmp(how, "fork") == 0) {
        handle(20000);
        churn(25);
        const struct itimerval never = {{0, 0}, {0, 0}};
        setitimer(ITIMER_REAL, &never, NULL);
    } else if (strcmp(how, "end") == 0) {
        for (int i = 0; i < 40; ++i) {
            const pid_t child = fork();
            if (child == 0) {
                ends = 1;
                handle(300 + 61 * i);
                churn(1);
            }
            int status = 0;
            if (waitpid(child, &status, 0) != child || status != 0) {
                return 1;
            }
        }
    } else if (strcmp(how, "vfork") == 0) { /* and the parent is served as before */
        const pid_t child = vfork();
        if (child == 0) {
            execl("/no/such/program", "program", (char*)NULL);
            _exit(127);
        }
        waitpid(child, NULL, 0);
        return malloc((size_t)200 << 20) == NULL ? 0 : 1;
    } else { /* the system itself sends this one */
        alarm(1);
        sleep(10);
        return 1;
    }
    puts("handled");
    return 0;
}
