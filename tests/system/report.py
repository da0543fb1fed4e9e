"""One line for each point that was shown."""

import time
import traceback


# Each further point would wait for what does not come.
FAILURES_TO_GIVE_UP_AFTER = 10


class Report:
    def __init__(self, restore=None):
        """`restore` is called after a point that failed, so that the next one counts for what it is."""
        self._restore = restore or (lambda: None)
        self._began = time.monotonic()
        self.shown = 0
        self.failed = 0
        self.not_tried = 0

    def check(self, description, function, *arguments):
        """Runs one point; its result, if any, is a detail for the line. A point that fails ends only itself."""
        if self.failed >= FAILURES_TO_GIVE_UP_AFTER:
            print(f"FAILED    -   s  {description} (not tried after {FAILURES_TO_GIVE_UP_AFTER} failures)", flush=True)
            self.not_tried += 1
            return
        start = time.monotonic()
        try:
            detail = function(*arguments)
            verdict = "ok"
            self.shown += 1
        except Exception as error:  # whatever a point stumbles over, the others still run
            detail = None
            verdict = "FAILED"
            self.failed += 1
            failure = str(error) if isinstance(error, AssertionError) and str(error) else traceback.format_exc()
        suffix = f" ({detail})" if detail else ""
        print(f"{verdict:6} {time.monotonic() - start:6.1f} s  {description}{suffix}", flush=True)
        if verdict == "FAILED":
            for line in failure.rstrip().splitlines():
                print(f"       | {line}", flush=True)
            self._put_back()

    def _put_back(self):
        try:
            self._restore()
        except Exception as error:  # the next points say what that costs them
            print(f"       | not put back: {error}", flush=True)

    def close(self):
        """Prints the verdict; true if every point was shown."""
        verdict = "FAILED" if self.failed or not self.shown else "ok"
        print(f"{verdict:6} {time.monotonic() - self._began:6.1f} s  the booted system: {self.shown} points shown, "
              f"{self.failed} failed, {self.not_tried} not tried", flush=True)
        return verdict == "ok"
