"""A first program in Python: the channels, by nothing but ctypes and the manual pages."""

import ctypes


class ChannelInfo(ctypes.LittleEndianStructure):
    _pack_ = 1
    _fields_ = [("identification0", ctypes.c_uint8 * 2), ("productCode", ctypes.c_uint16),
                ("hardwareVersion", ctypes.c_char), ("identification5", ctypes.c_uint8),
                ("firmwareVersion", ctypes.c_uint32), ("identification10", ctypes.c_uint8 * 4),
                ("familyName", ctypes.c_char * 64), ("productName", ctypes.c_char * 64),
                ("furtherText", ctypes.c_char * 64), ("boardSerialNumber", ctypes.c_char * 16),
                ("boardIndex", ctypes.c_uint8), ("channelIndex", ctypes.c_uint8)]


assert ctypes.sizeof(ChannelInfo) == 224
library = ctypes.CDLL("libqvcapture.so.3")
library.QVOpenChannel.restype = ctypes.c_void_p
library.QVCloseChannel.argtypes = [ctypes.c_void_p]
library.QVGetChannelInfo.argtypes = [ctypes.c_void_p, ctypes.POINTER(ChannelInfo)]
library.QVCaptureInitInstance()
for index in range(library.QVGetChannelCount()):
    info = ChannelInfo()
    assert library.QVGetChannelInfoByIndex(index, ctypes.byref(info)) == 0
    channel = library.QVOpenChannel(info.boardIndex, info.channelIndex)
    assert channel and library.QVGetChannelInfo(channel, ctypes.byref(info)) == 0
    library.QVCloseChannel(channel)
    print(f"{info.boardIndex}:{info.channelIndex} {info.productName.decode()}")
library.QVCaptureExitInstance()
