"""Commands of gdb for programs with Reticor: info pools, info handlers, info senders.

They need no debug information, and work in a process, on its core, and with a stripped library: the library exports a
table of places (reticor_debug_layout, written by Src/Core/debugger/DebugLayout.cpp), and all the rest is read as plain
memory. Nothing is called in the process, no lock is taken: a process that runs on can change what is being read.

Installed where gdb finds it by itself; by hand: source reticor-gdb.py
"""

import gdb

VERSION = 1
MAGIC = b"reticor layout"
CALLS = ["", "handle_input", "handle_output", "handle_exception", "handle_input_timeout", "handle_output_timeout",
         "handle_timeout", "handle_message", "handle_close", "handle_stream_input", "handle_stream_write",
         "handle_passive_input", "file task"]
# A list of a damaged process could lead in a circle.
MOST = 10_000_000


class Memory:
    """Numbers and texts of the process, or of its core."""

    @staticmethod
    def bytes(address, count):
        return bytes(gdb.selected_inferior().read_memory(address, count))

    @classmethod
    def number(cls, address, size=8, signed=False):
        return int.from_bytes(cls.bytes(address, size), "little", signed=signed)

    @classmethod
    def text(cls, address, most=1024):
        found = b""
        # A text may end where readable memory ends, so little is read at a time.
        while b"\0" not in found and len(found) < most:
            found += cls.bytes(address + len(found), 16 - (address + len(found)) % 16)
        return found.split(b"\0")[0].decode("utf-8", "replace")


class Layout:
    """The library's table: names and places."""

    def __init__(self):
        try:
            address = int(gdb.parse_and_eval("(unsigned long) &reticor_debug_layout"))
            head = Memory.bytes(address, 24)
        except gdb.error as error:
            raise gdb.GdbError(f"there is no Reticor here, or no process and no core ({error})") from error
        if head[:16].rstrip(b"\0") != MAGIC:
            raise gdb.GdbError("what is at reticor_debug_layout is no table of Reticor")
        version = int.from_bytes(head[16:20], "little")
        if version != VERSION:
            raise gdb.GdbError(f"the library's table has version {version}, and this script reads version {VERSION}: "
                               "take the script that came with the library")
        self.places = {}
        for entry in range(int.from_bytes(head[20:24], "little")):
            one = Memory.bytes(address + 24 + 32 * entry, 32)
            name = one[:24].split(b"\0")[0].decode("ascii", "replace")
            self.places[name] = int.from_bytes(one[24:], "little")

    def __getattr__(self, name):
        try:
            return self.places[name]
        except KeyError:
            raise gdb.GdbError(f"the library's table knows no {name}: take the script that came with it") from None

    def at(self, base, *names, size=8, signed=False):
        """The number at the sum of a base and places."""
        return Memory.number(base + sum(getattr(self, name) for name in names), size, signed)


def walk(first, next_of, what):
    """The addresses of a list; a list that cannot be followed to its end is told."""
    address, seen = first, set()
    while address:
        if address in seen or len(seen) >= MOST:
            print(f"the list of {what} leads in a circle at {address:#x}")
            return
        try:
            following = next_of(address)
        except gdb.MemoryError:
            print(f"the list of {what} breaks off at {address:#x}")
            return
        seen.add(address)
        yield address
        address = following


class Classes:
    """Names of handler classes."""

    def __init__(self, layout):
        self.layout, self.names = layout, {}

    def name(self, row):
        if row not in self.names:
            self.names[row] = self.read(row)
        return self.names[row]

    def read(self, row):
        if row >= self.layout.class_count:
            return f"row {row}"
        address = Memory.number(self.layout.class_names + 8 * row)
        name = Memory.text(address) if address else ""
        if row == 0 or not name:
            return name or "not called yet"
        # As the compiler writes it for a class; gdb wants it as it stands in a symbol.
        try:
            readable = gdb.execute(f"demangle -l c++ -- _ZTI{name}", to_string=True).strip()
        except gdb.error:
            return name
        prefix = "typeinfo for "
        return readable[len(prefix):] if readable.startswith(prefix) else name


class Handler:
    def __init__(self, layout, node):
        at = layout.at
        self.id = at(node, "node_entry", "entry_id", signed=True)
        self.owner = at(node, "node_entry", "entry_owner")
        self.refs = at(node, "node_refs", signed=True)
        self.socks = at(node, "node_socks", signed=True)
        self.row = at(node, "node_row_offset", size=4) // layout.row_size
        self.born_ms = at(node, "node_born_ms", size=4)
        if at(node, "node_close_called", size=2):
            self.state = "released"
        elif at(node, "node_detached", size=1):
            self.state = "detached"
        else:
            self.state = "open" if at(node, "node_magic", size=2) == layout.node_open else "closing"

    @property
    def pool(self):
        return pool_of(self.id)


def pool_of(id_):
    return id_ >> 8 & 0xFF if id_ else -1


def handlers(layout):
    """All of them, the oldest first."""
    found = []
    for shard in range(layout.shard_count):
        first = layout.at(layout.shards + shard * layout.shard_size, "shard_first")
        for link in walk(first, lambda at: layout.at(at, "link_next"), f"handlers, part {shard}"):
            # Without one it is the place of a thread that walks there.
            node = layout.at(link, "link_handler")
            if node:
                found.append(Handler(layout, node))
    # The clock of births starts again after 49 days.
    newest = max((one.born_ms for one in found), default=0)
    return sorted(found, key=lambda one: (-((newest - one.born_ms) & 0xFFFFFFFF), -one.id))


def table(head, rows, right):
    """Lines with aligned columns; those in `right` to the right."""
    rows = [[str(cell) for cell in row] for row in rows]
    widths = [max(len(row[column]) for row in [head, *rows]) for column in range(len(head))]
    for row in [head, *rows]:
        print("  ".join(cell.rjust(width) if name in right else cell.ljust(width)
                        for cell, width, name in zip(row, widths, head)).rstrip())


class Info(gdb.Command):
    """What the three have in common."""

    def __init__(self, name):
        super().__init__(name, gdb.COMMAND_STATUS)

    def invoke(self, argument, from_tty):
        if argument:
            raise gdb.GdbError("this takes no argument")
        self.dont_repeat()
        try:
            self.show(Layout())
        except gdb.MemoryError as error:
            raise gdb.GdbError(f"memory that cannot be read: {error}") from error


class InfoHandlers(Info):
    """All handlers of Reticor, the oldest first: how long after the first one each was made, its pool, id and state,
references and registered sockets, its class, and where the object is."""

    def show(self, layout):
        found, classes = handlers(layout), Classes(layout)
        if not found:
            print("there are no handlers")
            return
        first_ms = found[0].born_ms
        table(["after_s", "pool", "id", "state", "refs", "socks", "object", "class"],
              [[f"{((one.born_ms - first_ms) & 0xFFFFFFFF) / 1000:.3f}", one.pool, one.id, one.state, one.refs, one.socks,
                f"{one.owner:#x}", classes.name(one.row)] for one in found],
              {"after_s", "pool", "id", "refs", "socks"})
        print(f"{len(found)} handlers")


class InfoPools(Info):
    """The pools of Reticor: workers, those that are in a call of a handler, records that wait, serial messages in line;
and what each thread of a pool does."""

    def show(self, layout):
        threads = [self.thread(layout, at)
                   for at in walk(Memory.number(layout.threads), lambda at: layout.at(at, "thread_next"), "threads")]
        rows = []
        for index in range(layout.slot_count):
            pool = layout.at(layout.slots + index * layout.slot_size, "slot_pool")
            if pool:
                busy = sum(1 for one in threads if one["pool"] == index and one["call"])
                rows.append([index, layout.at(pool, "pool_running"), busy, self.length(layout, pool, "pool_queue"),
                             self.length(layout, pool, "pool_serial"), layout.at(pool, "pool_queue", "queue_pushed"),
                             f"{pool:#x}"])
        if not rows:
            print("there are no pools")
            return
        table(["pool", "workers", "in calls", "waiting", "serial", "pushed", "object"], rows,
              {"pool", "workers", "in calls", "waiting", "serial", "pushed"})
        classes = Classes(layout)
        names = {one.id: classes.name(one.row) for one in handlers(layout)}
        print()
        table(["thread", "pool", "gdb", "call", "id", "class"],
              [[one["lwp"], one["pool"] if one["pool"] >= 0 else "-", gdb_number(one["lwp"]),
                f"{call_name(one['kind'])}" if one["call"] else "-", one["id"] if one["call"] else "-",
                names.get(one["id"], "of a handler that has gone") if one["call"] else "-"]
               for one in sorted(threads, key=lambda one: (one["pool"], one["lwp"]))],
              {"thread", "pool", "gdb", "id"})

    @staticmethod
    def length(layout, pool, queue):
        return layout.at(pool, queue, "queue_pushed") - layout.at(pool, queue, "queue_taken")

    @staticmethod
    def thread(layout, at):
        call = layout.at(at, "thread_call")
        id_ = call | 0xFF << 56
        return {"pool": layout.at(at, "thread_pool", size=4, signed=True), "lwp": layout.at(at, "thread_id", size=4),
                "call": call, "kind": call >> 56 ^ 0xFF, "id": id_ - (1 << 64)}


def call_name(kind):
    return CALLS[kind] if kind < len(CALLS) else f"call {kind}"


def gdb_number(lwp):
    """gdb's own number of a thread, for its command `thread`."""
    return next((thread.num for thread in gdb.selected_inferior().threads() if thread.ptid[1] == lwp), "-")


class InfoSenders(Info):
    """The senders of all media buffers of Reticor, by buffer: how many bytes of its stream are still to come for each,
for how long its socket has been full when its buffer was used last, what it was sent and what it went without."""

    def show(self, layout):
        rows = []
        for entry in walk(Memory.number(layout.buffers), lambda at: layout.at(at, "buffer_next"), "buffers"):
            number = layout.at(entry, "buffer_number")
            core = layout.at(entry, "buffer_core")
            line = entry - layout.state_roll + layout.state_senders
            for first, state in (("senders_first", ""), ("senders_parked", "waits for room")):
                for sender in walk(layout.at(line, first), lambda at: layout.at(at, "sender_next"),
                                   f"senders of buffer {number}"):
                    rows.append(self.row(layout, number, core, sender, state))
        if not rows:
            print("there are no senders")
            return
        table(["buffer", "id", "behind", "blocked_ms", "frames", "bytes", "lost", "skipped", "state"],
              sorted(rows, key=lambda row: (row[0], -row[2], row[1])),
              {"buffer", "id", "behind", "blocked_ms", "frames", "bytes", "lost", "skipped"})
        print(f"{len(rows)} senders")

    @staticmethod
    def row(layout, number, core, sender, state):
        at = layout.at
        block = at(layout.at(sender, "sender_owner"), "handler_block")
        joined = at(sender, "sender_joined", size=1)
        behind = InfoSenders.behind(layout, core, sender) if joined else 0
        blocked, now = at(sender, "sender_block_us"), at(core, "core_now_us")
        if at(sender, "sender_failed", size=1):
            state = "failed"
        elif not joined:
            state = "waits for a frame to begin with"
        elif not state:
            state = "in a frame" if at(sender, "sender_frame") else "has caught up"
        stats = ["stats_frames", "stats_bytes", "stats_hole_frames", "stats_skipped_frames"]
        return [number, at(block, "node_entry", "entry_id", signed=True), behind,
                (now - blocked) // 1000 if blocked and now > blocked else 0,
                *[at(sender, "sender_stats", name) for name in stats], state]


    @staticmethod
    def behind(layout, core, sender):
        """As SenderRecord counts it."""
        at = layout.at
        total = at(core, "core_total")
        if not at(sender, "sender_keeps", size=1):
            return max(total - at(sender, "sender_total"), 0)
        frame, left = at(sender, "sender_frame"), at(sender, "sender_frame_left")
        if frame in (0, at(sender, "sender_tail")):
            return left
        kept, kept_now = at(frame, "frame_kept_begin"), at(core, "core_kept_at_begin")
        from_begin = kept_now - kept + total if kept < kept_now else total - at(frame, "frame_begin")
        return from_begin - at(frame, "frame_length", signed=True) + left


InfoHandlers("info handlers")
InfoPools("info pools")
InfoSenders("info senders")
