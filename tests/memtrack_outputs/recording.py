"""Recordings made up by tests, and what they hold, reckoned by other means than memtrack's."""
import random
import struct

MALLOC, FREE, NEW, DELETE, REALLOC, CALLOC, VALLOC, RELEASE, ACQUIRE = range(9)
NO_SIZE = 2**64 - 1
FULL_FILE = 131072


class Event:
    def __init__(self, kind, address, size=NO_SIZE, old=0, thread=0, phase=0):
        self.kind, self.address, self.size, self.old = kind, address, size, old
        self.thread, self.phase = thread, phase


def write(base, events, paths):
    """Leaves the files of a run: paths are bytes, in the order of their identifiers."""
    for number, start in enumerate(range(0, max(len(events), 1), FULL_FILE)):
        part = events[start:start + FULL_FILE]
        with open(f"{base}.memT{number}", "wb") as file:
            file.write(struct.pack("<i", len(part)))
            for i, e in enumerate(part):
                file.write(struct.pack("<QQiiQii", e.address, e.old, e.kind, start + i, e.size, e.thread,
                                       12345 if e.kind == FREE else e.phase))
    with open(base + ".phaseStack", "wb") as file:
        file.write(struct.pack("<i", len(paths)))
        for i, path in enumerate(paths):
            file.write(struct.pack("<i", i) + path.ljust(131072, b"\0"))


class Share:
    def __init__(self):
        self.allocated, self.held, self.at_peak, self.high = [0, 0], [0, 0], [0, 0], [0, 0]
        self.lifetimes = 0


class Held:
    """What a run held: by phase, at its peak, at its end."""

    def __init__(self, events, phases):
        self.shares = [Share() for _ in range(phases)]
        self.blocks = {}
        self.peak, self.peak_number, self.now = [0, 0], 0, [0, 0]
        self.events, self.refused, self.requests = len(events), 0, 0
        for number, event in enumerate(events):
            self._add(number, event)
        for size, phase, birth in self.blocks.values():
            self.shares[phase].lifetimes += len(events) - birth

    def _add(self, number, e):
        if e.kind in (FREE, DELETE):
            self._remove(number, e.address)
        elif e.kind in (RELEASE, ACQUIRE):
            return
        elif e.address == 0 and (e.kind != REALLOC or e.size != 0):
            self.refused += 1
        else:
            if e.kind == REALLOC:
                self._remove(number, e.old)
            if e.address != 0:
                self._enter(number, e)

    def _enter(self, number, e):
        self.blocks[e.address] = (e.size, e.phase, number)
        self.requests += 1
        share = self.shares[e.phase]
        for amount in (share.allocated, share.held, self.now):
            amount[0] += e.size
            amount[1] += 1
        if share.held[0] > share.high[0]:
            share.high = list(share.held)
        if self.now[0] > self.peak[0]:
            self.peak, self.peak_number = list(self.now), number
            for each in self.shares:
                each.at_peak = list(each.held)

    def _remove(self, number, address):
        if address in self.blocks:
            size, phase, birth = self.blocks.pop(address)
            share = self.shares[phase]
            share.lifetimes += number - birth
            for amount in (share.held, self.now):
                amount[0] -= size
                amount[1] -= 1


def mixed(count, phases, strays=0.0, seed=1):
    """Random events of three threads, which hold most about two thirds through the run; of them a part of
    strays, which release what is not known."""
    dice = random.Random(seed)
    held, events, next_address = [], [], 0x10000
    for i in range(count):
        thread, phase = dice.randrange(3), (i * phases // count + dice.randrange(2)) % phases
        grow = 0.75 if i < count * 2 // 3 else 0.3
        size = dice.choice((0, 8, 24, 100, 4096, 70000, 300000))
        if dice.random() < 0.02:
            events.append(Event(MALLOC, 0, 10**9, thread=thread, phase=phase))
        elif dice.random() < strays:
            events.append(Event(FREE, 0xDEAD0000 + i, thread=thread))
        elif not held or dice.random() < grow:
            kind = dice.choice((MALLOC, NEW, CALLOC, VALLOC, REALLOC))
            old = held.pop(dice.randrange(len(held))) if held and kind == REALLOC else 0
            stays = old != 0 and dice.random() < 0.3
            address = old if stays else next_address
            next_address += 0x100000
            events.append(Event(kind, address, size, old, thread, phase))
            held.append(address)
        else:
            kind = dice.choice((FREE, DELETE))
            events.append(Event(kind, held.pop(dice.randrange(len(held))), thread=thread, phase=phase))
    return events
