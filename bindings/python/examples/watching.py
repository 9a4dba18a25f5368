# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
from ordovan import Hub, TimedOut

with Hub() as hub:
    try:
        hub.wait(timeout=60)
    except TimedOut:
        print(hub.explain().text)
    for entry in hub.log():
        print(f"{entry.time:9.3f} {entry.message}")
