# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
import asyncio

from ordovan import Event
from ordovan.aio import Agent


async def main() -> None:
    async with Agent("Routing", [Event("Protocols", dependency=["Hardware"])]) as agent:
        stage = await agent.wait("Protocols")
        print("doing my part in", stage.name)
        await agent.complete("Protocols")


asyncio.run(main())
