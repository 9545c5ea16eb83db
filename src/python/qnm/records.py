"""The records of qnm.h as ctypes structures, with the field names of the header.

An array field reads like a list. In [port][path] arrays, the first index is the local port and the
second is the path on the card. repr() shows every field by name; as_dict() returns plain Python
values for JSON or a table.
"""

from __future__ import annotations

import ctypes
from collections.abc import Sequence
from typing import Annotated, Any, TypeVar, get_type_hints

from ._integers import checked

__all__ = ["ComDev", "ComPort", "DownPort", "Qnio", "Qnsv", "Record", "Retry"]

# Types of fields: what a type checker sees, and the layout in memory.
u8 = Annotated[int, ctypes.c_uint8]
u16 = Annotated[int, ctypes.c_uint16]
u32 = Annotated[int, ctypes.c_uint32]
u64 = Annotated[int, ctypes.c_uint64]
u8_2 = Annotated[Sequence[int], ctypes.c_uint8 * 2]
u8_3 = Annotated[Sequence[int], ctypes.c_uint8 * 3]
u8_4 = Annotated[Sequence[int], ctypes.c_uint8 * 4]
u8_7 = Annotated[Sequence[int], ctypes.c_uint8 * 7]
u32_2_2 = Annotated[Sequence[Sequence[int]], ctypes.c_uint32 * 2 * 2]
u64_2_2 = Annotated[Sequence[Sequence[int]], ctypes.c_uint64 * 2 * 2]
MacBytes = ctypes.c_uint8 * 6
mac = Annotated[Sequence[int], MacBytes]


def _plain(value: Any) -> Any:
    if isinstance(value, Record):
        return value.as_dict()
    if isinstance(value, ctypes.Array):
        return [_plain(element) for element in value]
    return value


def _shown(name: str, value: Any) -> str:
    if name == "ecd_id":
        return f"0x{value:012x}"
    if isinstance(value, MacBytes):
        return ":".join(f"{byte:02x}" for byte in value)
    if isinstance(value, ctypes.Array):
        return f"[{', '.join(_shown(name, element) for element in value)}]"
    return repr(value)


class Record(ctypes.Structure):
    """Base of all records: compares them by content and shows their fields."""

    @classmethod
    def field_names(cls) -> list[str]:
        """All fields but the reserved ones."""
        return [field[0] for field in cls._fields_ if "_pad" not in field[0]]

    def as_dict(self) -> dict[str, Any]:
        """The fields as numbers, lists and dictionaries."""
        return {name: _plain(getattr(self, name)) for name in self.field_names()}

    def __repr__(self) -> str:
        fields = ""
        if any(bytes(self)):  # an unused downstream port is shown as DownPort()
            fields = ", ".join(
                f"{name}={_shown(name, getattr(self, name))}" for name in self.field_names()
            )
        return f"{type(self).__name__}({fields})"

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, type(self)):
            return NotImplemented
        return bytes(self) == bytes(other)

    __hash__ = None  # type: ignore[assignment] # records can be changed


_R = TypeVar("_R", bound=type[Record])


def _lay_out(record: _R) -> _R:
    """Makes ctypes fields from a record's annotations."""
    hints = get_type_hints(record, include_extras=True)
    record._fields_ = [
        (name, hint.__metadata__[0] if hasattr(hint, "__metadata__") else hint)
        for name, hint in hints.items()
        if not name.startswith("_")
    ]
    return record


@_lay_out
class ComDev(Record):
    """What cards of both kinds report (qnm_com_dev_t).

    ecd_id          card ID
    ecd_recvtime    time (ms) of the last announcement over [port][path]; 0 = none
    ecd_updatetime  time (ms) of the last change of this record that was reported
    ecd_state       per [port][path]: 1 = connected, 0 = disconnected
    ecd_uidsw       UID switch, 0 or 1
    ecd_power       power bit, 0 or 1
    ecd_port0_link  link of the card's own port 0, 0 or 1
    ecd_port1_link  link of the card's own port 1, 0 or 1
    ecd_vlan_id     VLAN ID of the card's frames: its group ID
    ecd_macaddr     MAC address of the card (40G: lowest bit cleared)
    ecd_swstatus    the three switch-status bytes as announced
    ecd_vlan_mode   0 = ordinary VLAN tagging, else VLAN-tag change mode
    ecd_flowid      flow ID of the card
    ecd_type        0 = 1G/10G card, else 40G card
    ecd_linkstatus  link-status byte as announced
    ecd_int_vector  interrupt vector: pending major and minor errors
    ecd_ver         card version, 4 bits
    """

    ecd_id: u64
    ecd_recvtime: u64_2_2
    ecd_updatetime: u64
    ecd_state: u32_2_2
    ecd_uidsw: u32
    ecd_power: u32
    ecd_port0_link: u32
    ecd_port1_link: u32
    ecd_vlan_id: u16
    ecd_macaddr: mac
    ecd_swstatus: u8_3
    ecd_vlan_mode: u8
    ecd_flowid: u8
    ecd_type: u8
    ecd_linkstatus: u8
    ecd_int_vector: u8
    ecd_ver: u8
    ecd_pad1: u8_7


@_lay_out
class ComPort(Record):
    """Bridge settings of one PCIe port of a card (qnm_com_port_t, qnm_up_port_t).

    ecp_pre_base_upper    upper 32 bits of the prefetchable base
    ecp_pre_limit_upper   upper 32 bits of the prefetchable limit
    ecp_memory_base       memory base
    ecp_memory_limit      memory limit
    ecp_pre_memory_base   prefetchable memory base, lower part
    ecp_pre_memory_limit  prefetchable memory limit, lower part
    ecp_pri_bus_num       primary bus number
    ecp_sec_bus_num       secondary bus number
    ecp_sub_bus_num       subordinate bus number
    ecp_command           command byte of the bridge
    """

    ecp_pre_base_upper: u32
    ecp_pre_limit_upper: u32
    ecp_memory_base: u16
    ecp_memory_limit: u16
    ecp_pre_memory_base: u16
    ecp_pre_memory_limit: u16
    ecp_pri_bus_num: u8
    ecp_sec_bus_num: u8
    ecp_sub_bus_num: u8
    ecp_command: u8
    ecp_pad1: u8_4


@_lay_out
class DownPort(Record):
    """One downstream port of a QNSV card (qnm_down_port_t).

    edp_com_port     zero unless a QNIO card is connected behind the port
    edp_port_status  as announced; bit 1 of [1]: a QNIO card is connected
    edp_io_mac       MAC address of the QNIO card behind the port
    """

    edp_com_port: ComPort
    edp_port_status: u8_2
    edp_io_mac: mac


DownPorts = Annotated[Sequence[DownPort], DownPort * 16]


@_lay_out
class Qnsv(Record):
    """A QNSV card: the server side (qnm_qnsv_t).

    esv_com_dev    what cards of both kinds report
    esv_up_port    the upstream port
    esv_down_port  0 to 7 on a 1G/10G card, 0 to 15 on a 40G card
    """

    esv_com_dev: ComDev
    esv_up_port: ComPort
    esv_down_port: DownPorts

    @property
    def com_dev(self) -> ComDev:
        """What cards of both kinds report, by the same name for both."""
        return self.esv_com_dev


@_lay_out
class Qnio(Record):
    """A QNIO card: the I/O side (qnm_qnio_t).

    eio_com_dev          what cards of both kinds report
    eio_class_code       24-bit PCI class code
    eio_device_id        PCI device ID as announced
    eio_vendor_id        PCI vendor ID as announced
    eio_mr_resource_num  resource ID of a multi-root card, else 0
    eio_sermacaddr       MAC address of the QNSV card this card is bound to
    eio_substate         as announced; bit 1 of [1]: bound to a QNSV card
    eio_link0fault       fault of the link at the card's port 0, 0 or 1
    eio_link1fault       fault of the link at the card's port 1, 0 or 1
    eio_pcie_presence    PCIe presence bit, 0 or 1
    """

    eio_com_dev: ComDev
    eio_class_code: u32
    eio_device_id: u16
    eio_vendor_id: u16
    eio_mr_resource_num: u16
    eio_sermacaddr: mac
    eio_substate: u8_2
    eio_link0fault: u8
    eio_link1fault: u8
    eio_pcie_presence: u8
    eio_pad1: u8_3

    @property
    def com_dev(self) -> ComDev:
        """What cards of both kinds report, by the same name for both."""
        return self.eio_com_dev


@_lay_out
class Retry(Record):
    """Retry parameters of one call (qnm_retry_t), for example Retry(3, 200).

    er_retry_count     number of frames sent again after the first
    er_retry_interval  milliseconds to wait for each answer; 0 is invalid
    """

    er_retry_count: u32
    er_retry_interval: u32

    def __setattr__(self, name: str, value: Any) -> None:
        super().__setattr__(name, checked(ctypes.c_uint32, value, "Retry"))
