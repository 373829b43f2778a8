"""The thread in which all the lab's services live: an asyncio loop inside the world's network."""

import asyncio
import concurrent.futures
import threading
from typing import Any, Awaitable, Callable, Optional

from lab import linux

_CALL_SECONDS = 20.0


class World:
    """An asyncio loop in a thread that has entered the given network namespace."""

    def __init__(self, namespace_fd: int, on_error: Callable[[str], None]) -> None:
        """`on_error` is told of exceptions that escaped in the services: faults of the lab."""
        self._namespace_fd = namespace_fd
        self._on_error = on_error
        self._thread: Optional[threading.Thread] = None
        self.loop: asyncio.AbstractEventLoop

    def start(self) -> None:
        """Starts the thread; returns when the loop takes work, raises if it cannot."""
        ready: concurrent.futures.Future = concurrent.futures.Future()
        self._thread = threading.Thread(target=self._body, args=(ready,), name="lab-world",
                                        daemon=True)
        self._thread.start()
        self.loop = ready.result(_CALL_SECONDS)

    def _body(self, ready: concurrent.futures.Future) -> None:
        try:
            linux.setns(self._namespace_fd, linux.CLONE_NEWNET)
            loop = asyncio.new_event_loop()
            loop.set_exception_handler(self._escaped)
        except BaseException as error:  # raised again in start()
            ready.set_exception(error)
            return
        asyncio.set_event_loop(loop)
        loop.call_soon(ready.set_result, loop)
        loop.run_forever()
        for task in asyncio.all_tasks(loop):
            task.cancel()
        loop.run_until_complete(asyncio.sleep(0))
        loop.run_until_complete(loop.shutdown_asyncgens())
        loop.close()

    def _escaped(self, _loop: asyncio.AbstractEventLoop, context: dict[str, Any]) -> None:
        self._on_error(f"in the lab's services: {context['message']}: {context.get('exception')!r}")

    def stop(self) -> None:
        """Ends the loop and the thread."""
        if self._thread is None:
            return
        self.loop.call_soon_threadsafe(self.loop.stop)
        self._thread.join(_CALL_SECONDS)
        self._thread = None

    def wait(self, work: Awaitable[Any], timeout: float = _CALL_SECONDS) -> Any:
        """Runs a coroutine in the loop and returns its result."""
        async def awaited() -> Any:
            return await work
        return asyncio.run_coroutine_threadsafe(awaited(), self.loop).result(timeout)

    def call(self, function: Callable[..., Any], *arguments: Any) -> Any:
        """Calls a plain function in the loop's thread and returns its result."""
        async def called() -> Any:
            return function(*arguments)
        return self.wait(called())
