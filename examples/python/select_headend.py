#!/usr/bin/env python3
"""Prints the nearest of the headends of the command line, through the C interface (ahs.h)."""

import ctypes as c
import sys


class Headend(c.Structure):
    _fields_ = [("name", c.c_char_p), ("address", c.c_char_p)]


class Options(c.Structure):
    _fields_ = [("size", c.c_size_t), ("profile_directory", c.c_char_p), ("user_preferences_file", c.c_char_p),
                ("global_preferences_file", c.c_char_p), ("headends", c.POINTER(Headend)), ("headend_count", c.c_size_t),
                ("preferences", c.c_void_p), ("preference_count", c.c_size_t), ("proxy", c.c_char_p),
                ("cache_directory", c.c_char_p), ("log_file", c.c_char_p), ("log_level", c.c_uint32),
                ("own_loop", c.c_int), ("on_log", c.c_void_p), ("log_context", c.c_void_p)]


class Result(c.Structure):  # as far as it is read here
    _fields_ = [("size", c.c_size_t), ("status", c.c_uint32), ("reason", c.c_uint32),
                ("headends", c.POINTER(c.c_char_p)), ("headend_count", c.c_size_t)]


ahs = c.CDLL("libahs.so.1")
ahs.ahs_error_text.restype = ahs.ahs_status_text.restype = c.c_char_p
ahs.ahs_wait.restype = c.POINTER(Result)
headends = [Headend(None, argument.encode()) for argument in sys.argv[1:]]
options = Options(size=c.sizeof(Options), headends=(Headend * len(headends))(*headends), headend_count=len(headends))
library, selection = c.c_void_p(), c.c_void_p()
if (ahs.ahs_start(c.byref(options), c.byref(library))
        or ahs.ahs_select(library, None, ahs.ahs_no_callback, None, c.byref(selection))):
    sys.exit(ahs.ahs_error_text().decode())
result = ahs.ahs_wait(selection, c.c_uint32(0xFFFFFFFF)).contents
if not ahs.ahs_is_success(c.c_uint32(result.status)):
    sys.exit(ahs.ahs_status_text(c.c_uint32(result.status)).decode())
print(result.headends[0].decode())
ahs.ahs_free(selection)
ahs.ahs_stop(library)
