"""For Python as a parent of many: a pool of forked workers, threads that pack and unpack beside it, and children
forked while those threads run. With PYTHONMALLOC=malloc every object of it is a block of its own."""
import hashlib
import lzma
import multiprocessing
import os
import sys
import threading
import zlib


def work(number):
    words = sorted(f"{(number * 7919 + i * 104729) % 1000003}" for i in range(3000))
    packed = zlib.compress(",".join(words).encode(), 6)
    table = {word: [index, word * 2] for index, word in enumerate(words)}
    return hashlib.sha256(packed).hexdigest(), sum(len(entry[1]) for entry in table.values())


def pack(number, together, results):
    together.wait()  # memory may run short now: Python cannot stand that while it starts a thread
    data = b"".join(hashlib.sha256(b"%d %d" % (number, i)).digest()[: 8 + i % 9] for i in range(20000))
    packed = lzma.compress(data, preset=1)
    assert lzma.decompress(packed) == data
    results[number] = hashlib.sha256(packed).hexdigest()


if __name__ == "__main__":
    multiprocessing.set_start_method("fork")
    results = {}
    together = threading.Barrier(7)
    threads = [threading.Thread(target=pack, args=(number, together, results)) for number in range(6)]
    for thread in threads:
        thread.start()
    together.wait()
    children = []
    for number in range(12):
        child = os.fork()
        if child == 0:
            os._exit(work(number)[1] % 100)
        children.append(child)
    print("forked", [os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) for child in children])
    for thread in threads:
        thread.join()
    print("threads", sorted(results.items()))
    assert len(results) == len(threads), "a thread ended early"
    sys.stdout.flush()  # or every worker prints it again
    pool = multiprocessing.Pool(4)
    for result in pool.imap(work, range(40)):
        print(*result)
    pool.close()
    pool.join()
