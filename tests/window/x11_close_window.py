#!/usr/bin/env python3
"""Asks an X11 window to close the way a window manager's close button does: a WM_PROTOCOLS
client message carrying WM_DELETE_WINDOW. xdotool cannot send one.
Usage: x11_close_window.py WINDOW_ID"""
import ctypes
import sys

CLIENT_MESSAGE = 33

class ClientMessage(ctypes.Structure):
    _fields_ = [("type", ctypes.c_int), ("serial", ctypes.c_ulong), ("send_event", ctypes.c_int),
                ("display", ctypes.c_void_p), ("window", ctypes.c_ulong), ("message_type", ctypes.c_ulong),
                ("format", ctypes.c_int), ("data", ctypes.c_long * 5)]

class Event(ctypes.Union):
    _fields_ = [("client", ClientMessage), ("pad", ctypes.c_long * 24)]

def main():
    window = int(sys.argv[1], 0)
    x11 = ctypes.CDLL("libX11.so.6")
    x11.XOpenDisplay.restype = ctypes.c_void_p
    x11.XOpenDisplay.argtypes = [ctypes.c_char_p]
    x11.XInternAtom.restype = ctypes.c_ulong
    x11.XInternAtom.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_int]
    x11.XSendEvent.argtypes = [ctypes.c_void_p, ctypes.c_ulong, ctypes.c_int, ctypes.c_long, ctypes.POINTER(Event)]
    x11.XFlush.argtypes = [ctypes.c_void_p]
    x11.XCloseDisplay.argtypes = [ctypes.c_void_p]
    display = x11.XOpenDisplay(None)
    if not display:
        sys.exit("x11_close_window: cannot open the display")
    event = Event()
    event.client.type = CLIENT_MESSAGE
    event.client.window = window
    event.client.message_type = x11.XInternAtom(display, b"WM_PROTOCOLS", 0)
    event.client.format = 32
    event.client.data[0] = x11.XInternAtom(display, b"WM_DELETE_WINDOW", 0)
    if not x11.XSendEvent(display, window, 0, 0, ctypes.byref(event)):
        sys.exit("x11_close_window: XSendEvent failed")
    x11.XFlush(display)
    x11.XCloseDisplay(display)

main()
