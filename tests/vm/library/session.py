# The demo's storagectl session driven from Python on the appliance VM's kernel: the first
# disk offered becomes a storage, is mounted, listed, relabelled and unmounted.
import appliance_storage as st

disk = st.devices()[0]
assert not disk.partitions, f"{disk.name} is not blank"
disk.prepare()
part = next(d for d in st.devices() if d.name == disk.name).partitions[0]
part.mount("backups")
assert [(s.mount_point, s.label) for s in st.list_storages()] == [("backups", "")]
part.set_label("weekly")
assert [(s.mount_point, s.label) for s in st.list_storages()] == [("backups", "weekly")]
part.unmount()
assert st.list_storages() == []
try:
    part.mount("a/b")
    raise AssertionError("mounted on a/b")
except st.StorageError as e:
    assert (e.code, e.cause.code) == (0x720023, 0x720049)
    print(e)
print(f"{disk.name}: prepared, mounted, listed, labelled and unmounted from Python")
