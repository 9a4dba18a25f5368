# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
from ordovan import Agent, Event

events = [
    Event("Hardware", timeout=30, critical=True),
    Event("Protocols", dependency=["Hardware"]),
]
with Agent("Platform", events) as agent:
    for _ in events:
        stage = agent.wait()
        print("doing my part in", stage.name)
        agent.complete(stage.name)
