// The Python module appliance_storage: the storages, disks and partitions of the
// exported interface, with Common::Error raised as StorageError.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <string>
#include <vector>

#include "core/common/error.h"
#include "core/common/error_chain.h"
#include "core/common/guid.h"
#include "core/common/message_ids.h"
#include "core/common/message_text.h"
#include "core/common/module.h"
#include "core/common/unicode.h"
#include "quillenmark/raw/common/scsi_disk_helpers/attributes.h"
#include "quillenmark/raw/common/scsi_disk_helpers/disk.h"
#include "virtualization/common/storage/storage_config.h"
#include "virtualization/common/storage/storage_manager.h"

namespace py = pybind11;

namespace {

using MigrationManagement::StorageConfig;
using Virtualization::Appliance::BlockDevice;
using Virtualization::Appliance::Partition;
using Virtualization::Appliance::StoragesManager;

// Calls that run tools, read devices or wait on the kernel or a lock let other
// Python threads go on meanwhile.
using NoGil = py::call_guard<py::gil_scoped_release>;

// Kept for the life of the process: translators may run during interpreter shutdown.
PyObject* g_storageError = nullptr;

std::string U8(const String& text) { return Common::ToUtf8(text); }
String U16(const std::string& text) { return Common::FromUtf8(text); }

void Check(const Common::Error& e) {
  if (e) throw e;
}

py::object OrNone(const char* text) { return text ? py::object(py::str(text)) : py::object(py::none()); }

py::object ToPython(const Common::Error& e) {
  py::object error = py::reinterpret_borrow<py::object>(g_storageError)(Common::ErrorChainText(e));
  const Common::ErrorLocation where = e.GetLocation();
  error.attr("code") = e.GetCode();
  error.attr("text") = U8(e.GetText());
  error.attr("file") = OrNone(where.file);
  error.attr("function") = OrNone(where.function);
  error.attr("line") = where.line;
  const Common::Error cause = e.GetCause();
  error.attr("cause") = cause ? ToPython(cause) : py::none();
  return error;
}

py::object ToUuid(const GUID& id) {
  if (id.IsNull()) return py::none();
  return py::module_::import("uuid").attr("UUID")(id.ToString());
}

GUID FromUuid(const py::handle& serial) {
  if (!py::isinstance(serial, py::module_::import("uuid").attr("UUID")))
    throw py::type_error("serial must be a uuid.UUID");
  GUID id;
  GUID::Parse(py::str(serial).cast<std::string>(), id);  // uuid's text form always parses
  return id;
}

std::string Version() {
  return std::to_string(major_version) + "." + std::to_string(minor_version) + "." + std::to_string(build_number);
}

}  // namespace

PYBIND11_MODULE(appliance_storage, m) {
  m.doc() =
      "The appliance's local storages, disks and partitions. Failures raise StorageError.\n"
      "A Partition must not be changed from two threads at once.";

  g_storageError = PyErr_NewExceptionWithDoc(
      "appliance_storage.StorageError",
      "A failure of the library: code, text, place (file, function, line) and the StorageError that caused it.",
      PyExc_Exception, nullptr);
  if (!g_storageError) throw py::error_already_set();
  py::object type = py::reinterpret_borrow<py::object>(g_storageError);
  type.attr("code") = 0;
  type.attr("text") = "";
  type.attr("file") = py::none();
  type.attr("function") = py::none();
  type.attr("line") = 0;
  type.attr("cause") = py::none();
  m.attr("StorageError") = type;

  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (const Common::Error& e) {
      try {
        PyErr_SetObject(g_storageError, ToPython(e).ptr());
      } catch (py::error_already_set& failed) {
        failed.restore();
      }
    }
  });

  py::class_<StorageConfig::Storage>(m, "Storage")
      .def_property_readonly("mount_point", [](const StorageConfig::Storage& s) { return U8(s.MountPoint); })
      .def_property_readonly("label", [](const StorageConfig::Storage& s) { return U8(s.Label); });

  py::class_<BlockDevice::Signature>(m, "Signature")
      .def_property_readonly("partition", [](const BlockDevice::Signature& s) { return U8(s.partition); })
      .def_readonly("type", &BlockDevice::Signature::type)
      .def_readonly("label", &BlockDevice::Signature::label);

  py::class_<Partition, std::shared_ptr<Partition>>(m, "Partition")
      .def_property_readonly("name", [](const Partition& p) { return U8(p.GetName()); })
      .def_property_readonly("number", &Partition::GetNumber)
      .def_property_readonly("size", &Partition::GetSize)
      .def_property_readonly("uuid", [](const Partition& p) { return ToUuid(p.GetUuid()); })
      .def_property_readonly("label", py::cpp_function([](const Partition& p) { return U8(p.GetLabel()); }, NoGil()))
      .def_property_readonly("mount_point", [](const Partition& p) { return U8(p.GetMountPoint()); })
      .def_property_readonly("supported", py::cpp_function(&Partition::IsSupported, NoGil()))
      .def("mount", [](Partition& p, const std::string& name) { Check(p.Mount(U16(name))); }, py::arg("name"), NoGil())
      .def("unmount", [](Partition& p) { Check(p.Unmount()); }, NoGil())
      .def("set_label", [](Partition& p, const std::string& label) { Check(p.SetLabel(U16(label))); },
           py::arg("label"), NoGil());

  py::class_<BlockDevice, std::shared_ptr<BlockDevice>>(m, "Device")
      .def_property_readonly("name", [](const BlockDevice& d) { return U8(d.GetName()); })
      .def_property_readonly("size", &BlockDevice::GetSize)
      .def_property_readonly("host", &BlockDevice::GetHost)
      .def_property_readonly("target", &BlockDevice::GetTarget)
      .def_property_readonly("serial", [](const BlockDevice& d) { return ToUuid(d.GetDiskId()); })
      .def_property_readonly("partitions", &BlockDevice::GetPartitions)
      .def("prepare", [](BlockDevice& d) { Check(d.CreateBackupPartition()); }, NoGil())
      .def("find_signatures", &BlockDevice::FindSignatures, NoGil())
      .def("wipe_signatures", [](BlockDevice& d) { Check(d.WipeSignatures()); }, NoGil());

  m.def(
      "list_storages",
      [] {
        std::vector<StorageConfig::Storage> storages;
        Check(StorageConfig::GetCurrentStorageConfig()->GetStoragesList(storages));
        return storages;
      },
      NoGil());
  m.def(
      "devices", [](bool rescan) { return StoragesManager().GetBlockDevices(rescan); }, py::arg("rescan") = false,
      NoGil());

  m.def(
      "disk_attributes",
      [](const py::object& serial) {
        const GUID id = FromUuid(serial);
        SCSI::DiskAttributes attributes;
        {
          py::gil_scoped_release nogil;
          Check(SCSI::GetDiskAttributes(id, attributes));
        }
        py::dict result;
        for (const auto& [name, value] : attributes) result[py::str(U8(name))] = U8(value);
        return result;
      },
      py::arg("serial"));
  // A change reads the record and writes it back: other processes wait on the lock.
  m.def(
      "set_disk_attribute",
      [](const py::object& serial, const std::string& name, const std::string& value) {
        const GUID id = FromUuid(serial);
        py::gil_scoped_release nogil;
        const auto lock = SCSI::CreateDiskSubsystem()->Lock();
        Check(SCSI::SetDiskAttribute(id, U16(name), U16(value)));
      },
      py::arg("serial"), py::arg("name"), py::arg("value"));
  m.def(
      "remove_disk_attribute",
      [](const py::object& serial, const std::string& name) {
        const GUID id = FromUuid(serial);
        py::gil_scoped_release nogil;
        const auto lock = SCSI::CreateDiskSubsystem()->Lock();
        Check(SCSI::RemoveDiskAttribute(id, U16(name)));
      },
      py::arg("serial"), py::arg("name"));

  m.attr("__version__") = Version();
  m.def("identity", [] {
    const unsigned short* text = GetTextFromMessageFile(Messages::FailedToGetDisksWithStorages);
    py::dict identity;
    identity["library"] = Version();
    identity["module"] = std::string(_ErrorModuleName);
    identity["message_file"] = std::string(MsgFileName);
    identity["registry_dir"] = Common::ToUtf8(REG_LINUX_DIR, Common::Length(REG_LINUX_DIR));
    identity["message"] = Common::ToUtf8(text, Common::Length(text));
    return identity;
  });
}
