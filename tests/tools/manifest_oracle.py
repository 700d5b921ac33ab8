#!/usr/bin/python3
"""Writes and reads manifests with Python's own sqlite3, plistlib and struct.

    manifest_oracle.py write-database PATH < DOCUMENT
    manifest_oracle.py write-mbdb PATH < DOCUMENT
    manifest_oracle.py read-database PATH
    manifest_oracle.py read-mbdb PATH
    manifest_oracle.py grow-database PATH COUNT
    manifest_oracle.py database-csv PATH

DOCUMENT is JSON. For a database: {"setup": [SQL...], "rows": [{"fileID", "domain", "path",
"flags", "file"}...]}; "file" is null, {"hex": BYTES} or the fields of a record. A text may be
null, or {"hex": BYTES} for bytes that are no text. For Manifest.mbdb: {"header": HEX,
"records": [fields...], "trailer": HEX}. The readers print one line a fact.
"""
import base64
import csv
import hashlib
import io
import json
import plistlib
import sqlite3
import struct
import sys

TABLES = (
    "CREATE TABLE Files (fileID TEXT PRIMARY KEY, domain TEXT, relativePath TEXT, flags INTEGER, file BLOB)",
    "CREATE TABLE Properties (key TEXT PRIMARY KEY, value BLOB)",
    "CREATE INDEX FilesDomainIdx ON Files(domain)",
    "CREATE INDEX FilesFlagsIdx ON Files(flags)",
    "CREATE INDEX FilesRelativePathIdx ON Files(relativePath)",
)
NUMBERS = ("LastModified", "Flags", "GroupID", "LastStatusChange", "Birth", "Size", "InodeNumber", "Mode",
           "UserID", "ProtectionClass")


def class_entry(name, *parents):
    return {"$classname": name, "$classes": [name, *parents]}


def record_blob(fields):
    """A record as devices archive it: native references, class dictionary last."""
    objects = ["$null", None]
    record = {name: fields.get(name, 0) for name in NUMBERS}

    def add(value):
        objects.append(value)
        return plistlib.UID(len(objects) - 1)

    record["RelativePath"] = add(fields.get("RelativePath", ""))
    if "Target" in fields:
        record["Target"] = add(fields["Target"])
    if "Digest" in fields:
        record["Digest"] = add(bytes.fromhex(fields["Digest"]))
    if "EncryptionKey" in fields:
        key = {"NS.data": bytes.fromhex(fields["EncryptionKey"])}
        record["EncryptionKey"] = add(key)
        key["$class"] = add(class_entry("NSMutableData", "NSData", "NSObject"))
    if "ExtendedAttributes" in fields:
        record["ExtendedAttributes"] = add(plistlib.dumps(fields["ExtendedAttributes"], fmt=plistlib.FMT_BINARY))
    record["$class"] = add(class_entry("MBFile", "NSObject"))
    objects[1] = record
    archive = {"$version": 100000, "$archiver": "NSKeyedArchiver", "$top": {"root": plistlib.UID(1)},
               "$objects": objects}
    return plistlib.dumps(archive, fmt=plistlib.FMT_BINARY)


def raw_bytes(value):
    return bytes.fromhex(value["hex"])


def write_database(path):
    document = json.load(sys.stdin)
    database = sqlite3.connect(path)
    for statement in document.get("setup", TABLES):
        database.execute(statement)
    database.execute("PRAGMA user_version=2")
    for row in document["rows"]:
        insert_row(database, row)
    database.commit()
    database.close()


def insert_row(database, row):
    values, marks = [], []
    for name in ("fileID", "domain", "path"):
        value = row.get(name)
        is_raw = isinstance(value, dict)
        values.append(raw_bytes(value) if is_raw else value)
        marks.append("CAST(? AS TEXT)" if is_raw else "?")
    record = row.get("file")
    if isinstance(record, dict):
        record = raw_bytes(record) if "hex" in record else record_blob(record)
    database.execute(f"INSERT INTO Files VALUES ({','.join(marks)},?,?)", (*values, row.get("flags"), record))


def grow_database(path, count):
    """Rows like a device's: some hundred domains, 40-character identifiers, 520-byte records."""
    database = sqlite3.connect(path)
    for statement in TABLES:
        database.execute(statement)
    database.execute("PRAGMA user_version=2")
    database.executemany("INSERT INTO Files VALUES (?,?,?,?,?)", (device_row(i) for i in range(count)))
    database.commit()
    database.close()


def device_row(index):
    domain = f"AppDomain-com.example.application{index // 2500}"
    path = f"Library/Caches/WebKit/Storage/{index % 2500 // 50:04d}/Resource-{index:08d}.data"
    file_id = hashlib.sha1(f"{domain}-{path}".encode()).hexdigest()
    fields = {"RelativePath": path, "Mode": 0o100644, "UserID": 501, "GroupID": 501, "Size": index,
              "InodeNumber": 10 ** 7 + index, "ProtectionClass": 3, "LastModified": 1600000000 + index,
              "LastStatusChange": 1600000001 + index, "Birth": 1500000000, "EncryptionKey": "03000000" + "5a" * 40,
              "Digest": file_id}
    return file_id, domain, path, 1, record_blob(fields)


def show(value):
    return "NULL" if value is None else json.dumps(value, ensure_ascii=True)


def read_database(path):
    database = sqlite3.connect(f"file:{path}?mode=ro", uri=True)
    for kind, sql in database.execute("SELECT type, sql FROM sqlite_master WHERE sql IS NOT NULL ORDER BY rowid"):
        print("schema", kind, sql)
    for pragma in ("user_version", "page_size", "auto_vacuum", "journal_mode", "encoding", "integrity_check"):
        print(pragma, database.execute(f"PRAGMA {pragma}").fetchone()[0])
    for file_id, domain, relative_path, flags, record in database.execute("SELECT * FROM Files"):
        print("row", show(file_id), show(domain), show(relative_path), flags,
              "NULL" if record is None else describe_record(record))


def describe_record(blob):
    archive = plistlib.loads(blob)
    objects = archive["$objects"]
    record = follow(archive["$top"]["root"], objects)
    parts = []
    for name in sorted(set(record) - {"$class"}):
        parts.append(f"{name}={describe_value(follow(record[name], objects), objects)}")
    parts.append(follow(record["$class"], objects)["$classname"])
    return " ".join(parts)


def follow(value, objects):
    """The object that a reference of either form leads to; any other value as it is."""
    if isinstance(value, plistlib.UID):
        return objects[value.data]
    if isinstance(value, dict) and set(value) == {"CF$UID"}:
        return objects[value["CF$UID"]]
    return value


def describe_value(value, objects):
    if isinstance(value, bytes):
        return value.hex()
    if isinstance(value, dict) and "NS.keys" in value:
        keys = [follow(key, objects) for key in value["NS.keys"]]
        members = [describe_value(follow(item, objects), objects) for item in value["NS.objects"]]
        return "{" + ",".join(f"{key}:{member}" for key, member in sorted(zip(keys, members))) + "}"
    if isinstance(value, dict) and "NS.data" in value:
        return value["NS.data"].hex()
    return show(value)


CSV_COLUMNS = ("fileID", "domain", "relativePath", "fileTypeFlags", "relativePath2", "target", "digest",
               "encryptionKey", "mode", "inodeNumber", "userID", "groupID", "lastModified", "lastStatusChange",
               "birth", "size", "protectionClass", "extendedAttributes")


def database_csv(path):
    """The rows as CSV in the order of the lines' UTF-16 code units; attributes are left empty."""
    database = sqlite3.connect(f"file:{path}?mode=ro", uri=True)
    rows = [csv_row(*row) for row in database.execute("SELECT * FROM Files")]
    lines = sorted((csv_line(row) for row in rows), key=lambda line: line.encode("utf-16-be"))
    sys.stdout.buffer.write("\n".join([csv_line(CSV_COLUMNS), *lines]).encode())


def csv_line(fields):
    text = io.StringIO()
    csv.writer(text, quoting=csv.QUOTE_ALL, lineterminator="").writerow(fields)
    return text.getvalue()


def csv_row(file_id, domain, relative_path, flags, blob):
    archive = plistlib.loads(blob)
    objects = archive["$objects"]
    record = follow(archive["$top"]["root"], objects)
    texts = [follow(record.get(name, ""), objects) for name in ("RelativePath", "Target")]
    data = [base64.b64encode(data_of(follow(record.get(name, b""), objects))).decode()
            for name in ("Digest", "EncryptionKey")]
    inode = record["InodeNumber"]
    numbers = [record["Mode"], inode - (1 << 64) if inode >= 1 << 63 else inode,
               *(record[name] for name in ("UserID", "GroupID", "LastModified", "LastStatusChange", "Birth", "Size",
                                           "ProtectionClass"))]
    return [file_id or "", domain or "", relative_path or "", flags or 0, *texts, *data, *numbers, ""]


def data_of(value):
    return value["NS.data"] if isinstance(value, dict) else value


def byte_string(value):
    if value is None:
        return b"\xff\xff"
    return struct.pack(">H", len(value)) + value


def text_bytes(value):
    if isinstance(value, dict):
        return raw_bytes(value)
    return None if value is None else value.encode()


def mbdb_record(fields):
    parts = [byte_string(text_bytes(fields.get(name, ""))) for name in ("domain", "path", "target")]
    parts += [byte_string(bytes.fromhex(fields.get(name, ""))) for name in ("digest", "key")]
    parts.append(struct.pack(">HQIIIIIQB", *(fields.get(name, 0) for name in (
        "mode", "inode", "uid", "gid", "changed", "modified", "birth", "size", "protection"))))
    properties = fields.get("properties", [])
    parts.append(struct.pack("B", len(properties)))
    parts += [byte_string(text_bytes(name)) + byte_string(bytes.fromhex(value)) for name, value in properties]
    return b"".join(parts)


def write_mbdb(path):
    document = json.load(sys.stdin)
    with open(path, "wb") as file:
        file.write(bytes.fromhex(document.get("header", "6d6264620500")))
        for fields in document["records"]:
            file.write(mbdb_record(fields))
        file.write(bytes.fromhex(document.get("trailer", "")))


class Cursor:
    def __init__(self, data):
        self.data, self.position = data, 0

    def take(self, count):
        assert self.position + count <= len(self.data)
        self.position += count
        return self.data[self.position - count:self.position]

    def byte_string(self):
        length, = struct.unpack(">H", self.take(2))
        return b"" if length == 0xFFFF else self.take(length)


def read_mbdb(path):
    with open(path, "rb") as file:
        cursor = Cursor(file.read())
    print("header", cursor.take(6).hex())
    while cursor.position < len(cursor.data):
        texts = [show(cursor.byte_string().decode()) for _ in range(3)]
        hashes = [cursor.byte_string().hex() or "-" for _ in range(2)]
        fixed = struct.unpack(">HQIIIIIQB", cursor.take(39))
        count, = cursor.take(1)
        pairs = [f"{cursor.byte_string().decode()}:{cursor.byte_string().hex()}" for _ in range(count)]
        print("record", *texts, *hashes, *fixed, *pairs)


def main():
    command, path, *rest = sys.argv[1:]
    if command == "grow-database":
        grow_database(path, int(rest[0]))
    else:
        {"write-database": write_database, "write-mbdb": write_mbdb, "read-database": read_database,
         "read-mbdb": read_mbdb, "database-csv": database_csv}[command](path)


main()
