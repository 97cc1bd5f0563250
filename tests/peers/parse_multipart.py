#!/usr/bin/env python3
"""Parses a multipart/form-data body from stdin with Python's standard library
(email.parser) and prints {"parts": [...], "defects": [...]} as JSON. Each part
is {"name", "filename"?, "type", "data"} with data in hex."""
import email.parser
import email.policy
import json
import sys

content_type = sys.argv[1]
body = sys.stdin.buffer.read()
message = email.parser.BytesParser(policy=email.policy.HTTP).parsebytes(
    b"Content-Type: " + content_type.encode() + b"\r\n\r\n" + body)
parts = []
for part in message.iter_parts():
    entry = {"name": part.get_param("name", header="content-disposition") or "",
             "type": part.get_content_type()}
    filename = part.get_filename()
    if filename is not None:
        entry["filename"] = filename
    entry["data"] = (part.get_payload(decode=True) or b"").hex()
    parts.append(entry)
defects = [type(d).__name__ for d in message.defects]
json.dump(parts, sys.stdout)
sys.stderr.write(json.dumps({"defects": defects, "parts": len(parts)}) + "\n")
