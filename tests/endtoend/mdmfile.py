"""Takes an MDM file apart, and writes it again with other IDs, names or values. Shared by the end-to-end tests."""
import struct


class Mdm:
    """Names and IDs stay the bytes that they are, and so do the values of a row."""

    def __init__(self, path):
        with open(path, 'rb') as f:
            self.data = f.read()
        self.at = 10
        self.head = list(struct.unpack('<11i', self.take(44)))
        n1, n2, n3, records, units2, units3 = self.head[:6]
        self.rawtype, self.numeric = abs(self.head[9]), self.head[9] < 0
        self.names = [[self.take(13) for _ in range(n + 1)] for n in (n1, n2, n3)]
        width = self.take(4)
        self.files = width + self.take(3 * struct.unpack('<i', width)[0])
        self.means = self.take(8 * (n1 + n2 + n3))
        self.ids3 = [self.id() for _ in range(units3)]
        self.level3 = [self.take(8 * n3) for _ in range(units3)]
        self.blocks = []  # count, bytes of means and records, the two IDs, level-2 bytes
        for _ in range(units2):
            count, = struct.unpack('<i', self.take(4))
            self.blocks.append([count, self.take(8 * n1 * (count + 1)), self.id(), self.id(), self.take(8 * n2)])
        self.tail = self.data[self.at:]  # the section of long names, or nothing
        self.complete = self.data[:6] == b'MXKDR3' and self.tail[:8] in (b'', b'KDR3TEXT') and sum(b[0] for b in self.blocks) == records

    def take(self, n):
        self.at += n
        return self.data[self.at - n:self.at]

    def id(self):
        return self.take(8 if self.numeric else 13)

    def shown(self, identifier):
        return struct.unpack('<d', identifier)[0] if self.numeric else identifier

    def rows(self):
        """ID and values of each level-3 unit."""
        return list(zip(map(self.shown, self.ids3), self.level3))

    def units(self):
        """IDs, values of each record, and values of each level-2 unit."""
        width = 8 * self.head[0]
        return [(self.shown(id3), self.shown(id2), [body[i:i + width] for i in range(width, len(body), width)], level2)
                for _, body, id3, id2, level2 in self.blocks]

    def rename(self, level, old, new):
        slot = lambda n: n.rjust(8).ljust(12).encode() + b'\0'
        table = self.names[level - 1]
        table[table.index(slot(old))] = slot(new)

    def write(self, path, numeric=False):
        identifier = (lambda x: struct.pack('<d', float(x[:12]))) if numeric else (lambda x: x)
        head = list(self.head)
        head[9] = -abs(head[9]) if numeric else head[9]
        with open(path, 'wb') as f:
            f.write(self.data[:10] + struct.pack('<11i', *head) + b''.join(x for t in self.names for x in t))
            f.write(self.files + self.means + b''.join(map(identifier, self.ids3)) + b''.join(self.level3))
            for count, body, id3, id2, level2 in self.blocks:
                f.write(struct.pack('<i', count) + body + identifier(id3) + identifier(id2) + level2)
            f.write(self.tail)
