"""Writes recordings as a tracked run would leave them, for the tests of memtrack's page."""
import struct

MALLOC, FREE, NEW, DELETE, REALLOC, CALLOC = 0, 1, 2, 3, 4, 5
FULL_FILE = 131072
NO_SIZE = 2**64 - 1


class Recording:
    def __init__(self, base, phases=("ROOT",)):
        self.base = str(base)
        self.phases = phases
        self.count = self.files = 0
        self.records = []
        self.end = 0x7F0000000010

    def add(self, kind, pointer, size=NO_SIZE, thread=0, phase=0, old=0):
        self.records.append(
            struct.pack("<QQiiQii", pointer, old, kind, self.count, size, thread, phase))
        self.count += 1
        if len(self.records) == FULL_FILE:
            self.flush()

    def malloc(self, size, thread=0, phase=0):
        pointer = self.end
        self.end += (size + 31) // 16 * 16
        self.add(MALLOC, pointer, size, thread, phase)
        return pointer

    def refuse(self, size, thread=0, phase=0):
        self.add(MALLOC, 0, size, thread, phase)

    def free(self, pointer, thread=0):
        self.add(FREE, pointer, NO_SIZE, thread)

    def flush(self):
        if self.records:
            with open(f"{self.base}.memT{self.files}", "wb") as file:
                file.write(struct.pack("<i", len(self.records)))
                file.write(b"".join(self.records))
            self.files += 1
            self.records = []

    def finish(self, phase_stack=True):
        self.flush()
        if phase_stack:
            with open(f"{self.base}.phaseStack", "wb") as file:
                file.write(struct.pack("<i", len(self.phases)))
                for number, path in enumerate(self.phases):
                    file.write(struct.pack("<i", number) + path.encode().ljust(131072, b"\0"))
        return self.base


SOLVER = ("ROOT", "ROOT->read", "ROOT->read->mesh", "ROOT->assemble", "ROOT->assemble->elements",
          "ROOT->assemble->elements->stiffness", "ROOT->solve", "ROOT->solve->precondition",
          "ROOT->results")


def solver(base, events, seed=1, threads=3):
    """A run with steps: a mesh that stays, short-lived elements, growing rows, a few refusals, leaks."""
    run = Recording(base, SOLVER)
    state = seed
    held = []
    scratch = {}
    while run.count < events:
        state = (state * 6364136223846793005 + 1442695040888963407) % 2**64
        dice = state >> 33
        done = run.count / events
        thread = dice % threads if done > 0.3 else 0
        if done < 0.2:
            phase = 1 + dice % 2
        elif done < 0.55:
            phase = 3 + dice % 3 if dice % 50 else 3
        elif done < 0.9:
            phase = 7 if int(done * 40) % 2 else 6
        else:
            phase = 8
        kind = dice % 100
        if thread in scratch and kind < 90:
            run.free(scratch.pop(thread), thread)
        elif kind < 55:
            scratch[thread] = run.malloc(16 + dice % 4096, thread, phase)
        elif done > 0.9 and held and kind < 98:
            run.free(held.pop(), thread)
        elif kind < 70 and done < 0.9:
            held.append(run.malloc(64 + dice % (60000 if phase == 5 else 2000), thread, phase))
        elif kind < 72 and held:
            run.free(held.pop(dice % len(held)), thread)
        elif dice % 20011 == 5:
            run.refuse(1 << 34, thread, phase)
    return run.finish()
