"""ctypes mirrors of the records of the C headers (layout is ABI: do not reorder)."""

from __future__ import annotations

import ctypes
from ctypes import c_char, c_char_p, c_int, c_short, c_uint32, c_uint64, c_ulonglong, c_void_p


class EciParms(ctypes.Structure):
    """The 128-byte ECI parameter block of kvl_eci.h."""

    _fields_ = [
        ("eci_call_type", c_short),
        ("eci_program", c_char * 8),
        ("eci_userid", c_char * 16),
        ("eci_password", c_char * 16),
        ("eci_tran_id", c_char * 4),
        ("eci_abend", c_char * 4),
        ("eci_reserved1", c_char * 6),
        ("eci_commarea", c_void_p),
        ("eci_commarea_length", c_short),
        ("eci_timeout", c_short),
        ("eci_extend_mode", c_short),
        ("eci_reserved2", c_short),
        ("eci_luw_token", c_int),
        ("eci_version", c_short),
        ("eci_server_name", c_char * 8),
        ("eci_alt_tran_id", c_char * 4),
        ("commarea_outbound_length", c_short),
        ("commarea_inbound_length", c_short),
        ("eci_reserved3", c_short),
        ("eci_channel", c_void_p),
        ("eci_userid_ptr", c_char_p),
        ("eci_password_ptr", c_char_p),
        ("eci_msg_qual", c_int),
        ("eci_reserved4", c_int),
    ]


assert ctypes.sizeof(EciParms) == 128, "EciParms must be 128 bytes"
assert EciParms.eci_commarea.offset == 56 and EciParms.eci_channel.offset == 96


class EciContainerInfo(ctypes.Structure):
    _fields_ = [("name", c_char * 17), ("type", c_int), ("ccsid", c_int), ("dataLength", c_ulonglong)]


class SystemInfo(ctypes.Structure):
    """kvlSystemInfo: 70 bytes, as the Gateway sends it."""

    _fields_ = [("SystemName", c_char * 9), ("SystemDescription", c_char * 61)]


assert ctypes.sizeof(SystemInfo) == 70


class EsiTime(ctypes.Structure):
    _fields_ = [(n, c_int) for n in ("year", "month", "day", "hour", "minute", "second", "reserved")]


class EsiDetails(ctypes.Structure):
    _fields_ = [("lastVerifiedTime", EsiTime), ("expiryTime", EsiTime), ("lastAccessTime", EsiTime),
                ("invalidAttemptCount", c_int)]


class ConnectOptions(ctypes.Structure):
    """KVL_EXT_ConnectOptions of kvl_ext.h."""

    _fields_ = [
        ("size", c_uint32),
        ("host", c_char_p),
        ("port", c_int),
        ("applid", c_char_p),
        ("applidQualifier", c_char_p),
        ("connectTimeoutMs", c_int),
        ("callDeadlineMs", c_int),
        ("keepAlive", c_int),
        ("keepAliveIdleSec", c_int),
        ("keepAliveIntervalSec", c_int),
        ("keepAliveCount", c_int),
        ("tls", c_int),
        ("tlsNoVerify", c_int),
        ("tlsNoHostnameCheck", c_int),
        ("tlsMinVersion", c_int),
        ("tlsCaFile", c_char_p),
        ("tlsCertFile", c_char_p),
        ("tlsKeyFile", c_char_p),
        ("tlsCipherList", c_char_p),
        ("tlsServerName", c_char_p),
    ]


class Statistics(ctypes.Structure):
    """KVL_EXT_Statistics of kvl_ext.h."""

    _fields_ = [
        ("size", c_uint32),
        ("requestsSent", c_uint64 * 4),
        ("requestsCompleted", c_uint64 * 4),
        ("failures", c_uint64 * 5),
        ("bytesOut", c_uint64),
        ("bytesIn", c_uint64),
        ("inFlight", c_uint32),
        ("inFlightMax", c_uint32),
        ("latencyP50Us", c_uint64),
        ("latencyP90Us", c_uint64),
        ("latencyP99Us", c_uint64),
        ("latencyMaxUs", c_uint64),
    ]


GwTok = c_void_p
ChanTok = c_void_p
