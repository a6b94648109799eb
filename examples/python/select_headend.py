#!/usr/bin/env python3
"""Selects among the addresses of the command line through the C interface (ahs.h)."""

import ctypes as c
import sys


class Options(c.Structure):
    _fields_ = [("size", c.c_size_t), ("profile_directory", c.c_char_p), ("user_preferences", c.c_char_p),
                ("global_preferences", c.c_char_p), ("cache_file", c.c_char_p), ("log_file", c.c_char_p),
                ("addresses", c.POINTER(c.c_char_p)), ("address_count", c.c_size_t)]


class Result(c.Structure):
    _fields_ = [("size", c.c_size_t), ("status", c.c_uint32), ("reason", c.c_uint32),
                ("headends", c.POINTER(c.c_char_p)), ("headend_count", c.c_size_t), ("extra_info", c.c_char_p)]


ahs = c.CDLL("libahs.so.0.1")
ahs.ahs_status_name.restype = c.c_char_p
ahs.ahs_get_result.restype = c.POINTER(Result)
addresses = [argument.encode() for argument in sys.argv[1:]]
options = Options(size=c.sizeof(Options), addresses=(c.c_char_p * len(addresses))(*addresses),
                  address_count=len(addresses))
library, selection = c.c_void_p(), c.c_void_p()
status = ahs.ahs_start(c.byref(options), c.byref(library))
status = status or ahs.ahs_select(library, None, None, None, c.byref(selection))
if status:
    sys.exit(ahs.ahs_status_name(status).decode())
ahs.ahs_wait(selection, c.c_uint32(0xFFFFFFFF))
result = ahs.ahs_get_result(selection).contents
print(ahs.ahs_status_name(result.status).decode(), *[result.headends[i].decode() for i in range(result.headend_count)])
ahs.ahs_free(selection)
ahs.ahs_stop(library)
