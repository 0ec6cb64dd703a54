// A program of the library's own that forks while its threads allocate through it, with or without tracking: the
// children go on with the library, and each that ends its recording leaves it under a name of its own.
#include <KXMBasMem.h>
#include <kxm_utf8_names.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

std::atomic<bool> stop{false};
std::atomic<int> begun{0};

void churn() {
    ++begun;
    for (std::size_t i = 0; !stop; ++i) {
        mem_Free(mem_Realloc(mem_Malloc(i % 2000 + 1), i % 900 + 1));
    }
}

void finish() {
    if (mem_Tracker_Interface::IsTrackingActive()) {
        kxm::register_utf8_names();
        mem_ThreadId::Finalize();
        mem_Tracker::Finalize();
    }
}

// Of a fork by the first thread, which stays that, or by another, which does not become it.
int child(int markers) {
    std::thread other([] { mem_Free(mem_Malloc(10)); });
    other.join();
    KXMBasPhaseTracker::SaveMarker("Child Start");
    if (KXMBasPhaseTracker::Size() != markers) {
        return 1; // its first thread is not known any more
    }
    for (std::size_t i = 0; i < 500; ++i) {
        mem_Free(mem_Malloc(i * 300));
    }
    finish();
    return 33;
}

void make_child(int number, int markers) {
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(child(markers));
    }
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 33) {
        std::printf("child %d: status %d\n", number, status);
        std::fflush(stdout);
        _exit(1);
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc > 1) {
        mem_Tracker_Interface::SetOutputName(argv[1]);
    }
    if (argc > 2) { // the pool, with its lock
        mem_TBAllocator(1);
        mem_TBThreadLock(true);
    }
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back(churn);
    }
    while (
        begun <
        3) { // a thread that starts may hold a lock of a checker's runtime, which a child would meet
        std::this_thread::yield();
    }
    for (int i = 0; i < 20; ++i) {
        if (i % 4 == 3) {
            std::thread(make_child, i, 0).join();
        } else {
            make_child(i, 1);
        }
    }
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    finish();
    std::puts("forked");
    return 0;
}
