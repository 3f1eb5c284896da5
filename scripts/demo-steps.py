"""The steps of scripts/demo. Each says what it does, does it, and fails the demo if it does not behave."""

import os
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "Tests" / "System" / "support"))

from machine import Machine
from processes import wait_until

BLOCKED, ADDED, OTHER = "distraction.example", "chat.example", "work.example"
_step = 0


def step(text):
    global _step
    _step += 1
    print(f"\n{_step}. {text}", flush=True)


def show(command, output):
    print(f"   $ {command}")
    for line in output.strip().splitlines():
        print(f"   {line}")
    sys.stdout.flush()


def require(condition, what):
    if not condition:
        raise AssertionError(what)


def visit(machine, name, blocked):
    status, output = machine.curl(f"https://{name}/")
    show(f"curl https://{name}/", output)
    if blocked:
        require(status in (7, 35, 56), f"{name} was not refused: curl ended with {status}")
    else:
        require((status, output) == (0, f"ok {name}"), f"{name} did not answer: {output}")


def stillow(machine, *arguments):
    result = machine.stillow(*arguments)
    show("stillow " + " ".join(arguments), result.stdout)
    return result


def main(machine):
    step("A machine of its own: two network namespaces, a web server for four sites, real TLS.")
    visit(machine, BLOCKED, blocked=False)

    step("The filter starts. Without a directive it blocks nothing.")
    machine.start_filter()
    show("stillow-filter &", machine.filter.log())
    visit(machine, BLOCKED, blocked=False)

    step("The daemon starts, finds no promise to keep, and serves clients.")
    machine.start_daemon()
    show("StillowDaemon &", machine.daemon.log())

    step("A user starts a Commitment, as typed; it is validated end to end first.")
    stillow(machine, "start", "--for", "40s", "--yes", f"https://www.{BLOCKED}/feed")
    visit(machine, BLOCKED, blocked=True)
    visit(machine, f"www.{BLOCKED}", blocked=True)
    visit(machine, OTHER, blocked=False)

    step("It can be strengthened and extended, but not ended.")
    visit(machine, ADDED, blocked=False)
    stillow(machine, "add", "--yes", ADDED)
    visit(machine, ADDED, blocked=True)
    stillow(machine, "extend", "--yes", "--by", "5s")

    step("kill -9 of the daemon changes nothing.")
    before = machine.active()
    machine.kill(machine.daemon)
    show("kill -9 $daemon", "")
    visit(machine, BLOCKED, blocked=True)
    log = machine.daemon.log()
    machine.start_daemon()
    show("StillowDaemon &", machine.daemon.log().removeprefix(log))
    after = machine.active()
    require(after is not None, "the Commitment is gone")
    require(set(after["scope"]) == set(before["scope"]), "the Scope has changed")
    stillow(machine, "status")
    visit(machine, BLOCKED, blocked=True)

    step("kill -9 of the filter is noticed, and healed when it runs again.")
    machine.kill(machine.filter)
    show("kill -9 $filter", "")
    wait_until(lambda: "degraded" in machine.health(), "the loss to be noticed")
    stillow(machine, "status")
    log = machine.filter.log()
    machine.start_filter()
    wait_until(lambda: machine.health() == {"healthy": {}}, "health")
    show("stillow-filter &", machine.filter.log().removeprefix(log))
    stillow(machine, "status")
    visit(machine, BLOCKED, blocked=True)

    step("The Commitment ends by itself when its time has run.")
    wait_until(lambda: machine.active() is None, "the end", 110)
    stillow(machine, "status")
    visit(machine, BLOCKED, blocked=False)
    stillow(machine, "acknowledge")
    print("\nEvery step behaved.")


if __name__ == "__main__":
    demo = Machine(os.environ["STILLOW_BIN"], [BLOCKED, f"www.{BLOCKED}", ADDED, OTHER])
    try:
        main(demo)
    except Exception as error:
        print(f"\nThe demo failed: {error}", file=sys.stderr)
        for name in ("daemon", "filter"):
            process = getattr(demo, name)
            if process:
                print(f"---- {name}\n{process.log()}", file=sys.stderr)
        sys.exit(1)
    finally:
        demo.close()
