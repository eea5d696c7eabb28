"""A mail delivery agent for fetchmail in the tests: stores the message on standard input as the next
numbered file in the folder given as the only argument."""

import os
import sys

folder = sys.argv[1]
data = sys.stdin.buffer.read()
number = len([n for n in os.listdir(folder) if n.endswith(".eml")]) + 1
path = os.path.join(folder, "%03d.eml" % number)
with open(path + ".tmp", "wb") as f:
    f.write(data)
os.rename(path + ".tmp", path)
