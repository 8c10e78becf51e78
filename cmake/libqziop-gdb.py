"""Pretty-printers of gdb for the records of qzpos.h: handles, lists, page buffers and blocks.

gdb loads this file with libqziop.so when it is installed under share/gdb/auto-load; else:
(gdb) source libqziop-gdb.py. The program must have debug information; the module needs none.
"""

import gdb
import gdb.printing

MOST_RECORDS = 200  # a broken list may be a ring


def records(head):
    """The records of a list, from its head."""
    count = 0
    while int(head) != 0 and count < MOST_RECORDS:
        yield head.dereference()
        head = head["next"]
        count += 1


def counted(number, noun):
    return "%d %s%s" % (number, noun, "" if number == 1 else "s")


class PageBuffer:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        page = int(self.value["pageNumber"])
        text = "page %d" % page if page != 0 else "empty"
        if page != 0:
            text += ", %d bytes" % int(self.value["validBytes"])
        if int(self.value["held"]) != 0:
            text += ", " + counted(int(self.value["extraHolds"]) + 1, "hold")
        return text


class BlockRecord:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        first, last = int(self.value["firstPage"]), int(self.value["lastPage"])
        text = "pages %d-%d" % (first, last) if first != 0 else "empty"
        if first != 0:
            text += ", %d bytes" % int(self.value["validBytes"])
        if int(self.value["holdCount"]) != 0:
            text += ", " + counted(int(self.value["holdCount"]), "hold")
        if int(self.value["dirtyPages"]) != 0:
            text += ", %d collected" % int(self.value["dirtyPages"])
        return text


class List:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        return counted(sum(1 for _ in records(self.value["head"])), "record")

    def children(self):
        for i, record in enumerate(records(self.value["head"])):
            yield "[%d]" % i, record

    def display_hint(self):
        return "array"


class FileHandle:
    LISTS = ("pageFreeList", "pageHeldList", "blockFreeList", "blockHeldList", "blockAcquiredList")
    FIELDS = ("status", "lastErrno", "fd", "pageCount", "fileSize", "pageSize", "headerSize",
              "nextPage", "heldCount", "bufferCount")

    def __init__(self, value):
        self.value = value

    def name(self):
        if int(self.value["fileName"]) == 0:
            return "no name"
        length = int(self.value["fileNameLength"])
        start = int(self.value["fileName"])
        bytes_ = gdb.selected_inferior().read_memory(start, 4 * length).tobytes()
        return bytes_.decode("utf-32-le", "replace")

    def to_string(self):
        flags, mode = int(self.value["stateFlags"]), int(self.value["directIoMode"])
        attached = int(self.value["hostFile"]) != 0
        state = ("open" if flags & 2 else "pre-opened" if flags & 1 else
                 "attached" if attached else "closed")
        io = "direct I/O" if mode & 1 else "buffered I/O"
        return "%s: %s, %s, %s" % (self.name(), state, io, "blocks" if mode & 2 else "pages")

    def children(self):
        for field in self.FIELDS:
            yield field, self.value[field]
        for field in self.LISTS:
            if int(self.value[field]["head"]) != 0:
                yield field, self.value[field]
        if int(self.value["writeBlock"]) != 0:
            yield "writeBlock", self.value["writeBlock"].dereference()


def printers():
    collection = gdb.printing.RegexpCollectionPrettyPrinter("qziop")
    collection.add_printer("PageBuffer", "^qz::PageBuffer$", PageBuffer)
    collection.add_printer("BlockRecord", "^qz::BlockRecord$", BlockRecord)
    collection.add_printer("List", "^qz::List<.*>$", List)
    collection.add_printer("FileHandle", "^qz::FileHandle$", FileHandle)
    return collection


gdb.printing.register_pretty_printer(gdb.current_objfile(), printers(), replace=True)
