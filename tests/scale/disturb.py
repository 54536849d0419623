"""What befalls hosts and balancers while they are under load. Each function takes the stand,
does its work and returns when all is as before.

Those that end hosts also take `ask(when, ended)`: it asks every session that was opened before,
when some nodes have ended; their sessions must be refused, and the others must go on."""
import os
import shutil
import signal
import time

from stand import (GIVEN_UP_SECONDS, LAME_DUCK_SECONDS, REQUEST_SECONDS, Failure,
                   eventually)

# HAProxy takes a host back after two good checks, a second apart.
TAKEN_BACK_SECONDS = 3
FRONT_HANGS_SECONDS = GIVEN_UP_SECONDS + 2
WORKER_HANGS_SECONDS = REQUEST_SECONDS + 1


def kill_and_start(stand, ask):
    """Hosts end at once, as with their machines, and come back under their names."""
    ended = ""
    for node in ("a", "b"):
        host = stand.hosts[node]
        ended += node
        host.end(signal.SIGKILL)
        ask(f"node {node} was killed just now", ended)
        time.sleep(1.5)
        ask(f"node {node} is down", ended)
        host.start()
        time.sleep(TAKEN_BACK_SECONDS)
        ask(f"node {node} is back", ended)


def end_well(host, ask, ended):
    """SIGTERM: the host says that it is not ready, goes on, and ends."""
    host.child.send_signal(signal.SIGTERM)
    time.sleep(LAME_DUCK_SECONDS - 1)  # the checks have noticed
    ask(f"node {host.node} drains", ended)
    eventually(f"node {host.node} to end", host.ended)
    if host.child.returncode != 0:
        raise Failure(f"node {host.node} ended with {host.child.returncode}:\n{host.tail()}")


def end_well_and_start(stand, ask, node="b", ended=""):
    host = stand.hosts[node]
    end_well(host, ask, ended)
    ended += node
    ask(f"node {node} is down", ended)
    host.start()
    time.sleep(TAKEN_BACK_SECONDS)
    ask(f"node {node} is back", ended)


def rolling_upgrade(stand, ask):
    ended = ""
    for node in stand.hosts:
        end_well_and_start(stand, ask, node, ended)
        ended += node


def pause(pids, seconds):
    for pid in pids:
        os.kill(pid, signal.SIGSTOP)
    time.sleep(seconds)
    for pid in pids:
        try:
            os.kill(pid, signal.SIGCONT)
        except ProcessLookupError:
            pass  # it was ended meanwhile


def front_hangs(stand):
    """HAProxy's checks notice after three seconds. What was sent before is given up later, and
    repeated elsewhere."""
    pause([stand.hosts["a"].child.pid], FRONT_HANGS_SECONDS)
    time.sleep(TAKEN_BACK_SECONDS)


def worker_hangs(stand):
    """The host gives it up, ends it and answers 504, which nobody repeats."""
    pause(stand.hosts["b"].workers()[:1], WORKER_HANGS_SECONDS)
    time.sleep(1)


def workers_die(stand):
    """One of a host's two workers after the other, ten times."""
    for number in range(10):
        workers = stand.hosts["b"].workers()
        if workers:
            os.kill(workers[number % len(workers)], signal.SIGKILL)
        time.sleep(0.4)


def engine_breaks(stand):
    """A host whose engine is a file that cannot be loaded, once its workers have ended."""
    host = stand.hosts["c"]
    whole = host.engine + ".whole"
    broken = host.engine + ".broken"
    with open(broken, "w") as file:
        file.write("not a library\n")
    os.rename(broken, host.engine)
    for worker in host.workers():
        os.kill(worker, signal.SIGKILL)
    eventually("the host to be not ready", lambda: not host.ready())
    time.sleep(4)
    shutil.copy(whole, broken)
    os.rename(broken, host.engine)
    eventually("the host to be ready again", host.ready)
    time.sleep(TAKEN_BACK_SECONDS)


def balancers_reload(stand):
    for _ in range(3):
        for balancer in stand.balancers:
            balancer.reload()
        time.sleep(1)


def balancers_restart(stand):
    for balancer in stand.balancers:
        balancer.end()
        balancer.start()
    stand.wait_for_balancers()
    time.sleep(1)


# What, and the function.
MUST_LOSE_NOTHING = [
    ("hosts end by SIGKILL and come back", kill_and_start),
    (f"a host ends by SIGTERM, {LAME_DUCK_SECONDS} s of lame duck", end_well_and_start),
    ("rolling upgrade of all three hosts", rolling_upgrade),
]
MAY_LOSE = [
    (f"a front hangs for {FRONT_HANGS_SECONDS} s", front_hangs),
    (f"a worker hangs for {WORKER_HANGS_SECONDS} s", worker_hangs),
    ("workers die, ten times", workers_die),
    ("a host cannot load its engine for 4 s", engine_breaks),
    ("the balancer is reloaded, three times", balancers_reload),
    ("the balancer is restarted", balancers_restart),
]
