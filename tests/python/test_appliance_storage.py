# On the machine of python_machine.cpp: sdb holds "st1" labelled "data", sdc is blank, sdd has no serial.
import pathlib, subprocess, threading, time, uuid
import appliance_storage as st

GiB = 1 << 30
SDB, SDC = uuid.UUID("6000C290-0000-0000-0000-0000000000B0"), uuid.UUID("6000C290-0000-0000-0000-0000000000C0")
HANG = pathlib.Path("/tmp/.fake_machine/hang/dd")


def chain(e):
    return [hex(e.code)] + chain(e.cause) if e else []


def outcome(call):
    try:
        return call()
    except st.StorageError as e:  # its text: the chain, each code, the first with its place
        head, *causes = str(e).split("\n")
        assert head == f"error 0x{e.code:06X}: {e.text} ({e.file}, {e.function}, line {e.line})" and e.text and e.line
        assert len(causes) == len(chain(e)) - 1 and (not e.cause or isinstance(e.cause, st.StorageError) and
                                                     causes[0].startswith(f"  cause 0x{e.cause.code:06X}: "))
        return chain(e)
    except TypeError:
        return TypeError


dev = lambda name: next(d for d in st.devices() if d.name == name)
parts = lambda name: [(p.name, p.number, p.size // GiB, isinstance(p.uuid, uuid.UUID), p.label, p.mount_point,
                       p.supported) for p in dev(name).partitions]
storages = lambda: [(s.mount_point, s.label) for s in st.list_storages()]
signatures = lambda name: [(s.partition, s.type, s.label) for s in dev(name).find_signatures()]
sdc1 = lambda: dev("sdc").partitions[0]
names = lambda rescan=False: [d.name for d in st.devices(rescan)]

# In order: each step sees what the ones before did to the machine.
STEPS = [
    (storages, [("st1", "data")]),
    (lambda: [(d.name, d.size, d.host, d.target, d.serial) for d in st.devices()],
     [("sdb", 12 * GiB, 2, 1, SDB), ("sdc", 16 * GiB, 2, 2, SDC), ("sdd", 12 * GiB, 2, 3, None)]),
    (lambda: (parts("sdb"), parts("sdc"), signatures("sdc")), ([("sdb1", 1, 10, True, "data", "st1", True)], [], [])),
    (lambda: dev("sdb").prepare(), ["0x720021"]),
    (lambda: dev("sdb").partitions[0].mount("a/b"), ["0x720023", "0x720049"]),
    (lambda: (dev("sdc").prepare(), parts("sdc"), signatures("sdc")),
     (None, [("sdc1", 1, 15, True, "", "", True)], [("sdc", "gpt", ""), ("sdc1", "ext4", "ZLM")])),
    (lambda: (sdc1().mount("st2"), sdc1().set_label("backup"), storages()),
     (None, None, [("st1", "data"), ("st2", "backup")])),
    (lambda: sdc1().set_label("x" * 14), ["0x720026", "0x72004c"]),
    (lambda: (sdc1().unmount(), storages(), sdc1().mount_point), (None, [("st1", "data")], "")),
    (lambda: (dev("sdc").wipe_signatures(), signatures("sdc")), (None, [])),
    (lambda: (st.set_disk_attribute(SDC, "Temporary", "1"), st.disk_attributes(SDC), names()),
     (None, {"Temporary": "1"}, ["sdb", "sdd"])),
    (lambda: (st.remove_disk_attribute(SDC, "Temporary"), st.disk_attributes(SDC), names(rescan=False)),
     (None, {}, ["sdb", "sdc", "sdd"])),
    (lambda: st.disk_attributes(str(SDC)), TypeError),
    (lambda: dev("sdb").partitions[0].mount(5), TypeError),
]


def test_calls_and_outcomes():
    for step, (call, expected) in enumerate(STEPS):
        assert outcome(call) == expected, f"step {step}"


def test_prepare_lets_other_threads_run():
    # Holding the GIL, prepare would let this thread run only once the watchdog frees dd.
    HANG.parent.mkdir(parents=True, exist_ok=True)
    HANG.touch()
    dd_runs = lambda: ("\n" + pathlib.Path("/tmp/.fake_machine/calls").read_text()).count("\ndd ")
    before = dd_runs()
    watchdog = subprocess.Popen(["sh", "-c", f"sleep 20; rm -f {HANG}"])
    worker = threading.Thread(target=dev("sdc").prepare)  # the disk wiped above
    worker.start()
    deadline, waits = time.monotonic() + 15, False
    while not waits and time.monotonic() < deadline:
        waits = HANG.exists() and dd_runs() > before
        time.sleep(0.05)
    watchdog.kill()
    HANG.unlink(missing_ok=True)
    worker.join()
    watchdog.wait()
    assert waits and parts("sdc") == [("sdc1", 1, 15, True, "", "", True)]
