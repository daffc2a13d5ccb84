// The interface of every open channel, whatever its kind.
//
// The order of the virtual operations is fixed; both implementations follow it. An operation that a
// kind does not have keeps the default here: QV_RESULT_FAILED. No data, no lock.
#pragma once

#include "QVCaptureTypes.h"

class CQVCaptureBase;
class CQVUSBCaptureBase;

class IQVCaptureDevice {
  public:
    virtual ~IQVCaptureDevice() = default;
    virtual void CloseChannel() {}

    virtual QV_RESULT GetChannelInfo(_QVCAP_CHANNEL_INFO*) { return QV_RESULT_FAILED; }
    virtual QV_RESULT GetFamilyInfo(void*, unsigned int) { return QV_RESULT_FAILED; }
    virtual QV_RESULT GetVideoCaps(_QVCAP_VIDEO_CAPS*) { return QV_RESULT_FAILED; }
    virtual QV_RESULT GetAudioCaps(_QVCAP_AUDIO_CAPS*) { return QV_RESULT_FAILED; }
    virtual QV_RESULT GetVideoInputSourceCount(unsigned int*) { return QV_RESULT_FAILED; }
    virtual QV_RESULT GetVideoInputSourceArray(unsigned int*, unsigned int*) {
        return QV_RESULT_FAILED;
    }
    virtual QV_RESULT GetAudioInputSourceCount(unsigned int*) { return QV_RESULT_FAILED; }
    virtual QV_RESULT GetAudioInputSourceArray(unsigned int*, unsigned int*) {
        return QV_RESULT_FAILED;
    }
    virtual QV_RESULT GetInputSourceScan(char*) { return QV_RESULT_FAILED; }
    virtual QV_RESULT SetInputSourceScan(char) { return QV_RESULT_FAILED; }
    virtual QV_RESULT GetInputSourceScanState(char*) { return QV_RESULT_FAILED; }
    virtual QV_RESULT GetAVInputSourceLink(char*) { return QV_RESULT_FAILED; }
    virtual QV_RESULT SetAVInputSourceLink(char) { return QV_RESULT_FAILED; }
    virtual QV_RESULT GetVideoInputSource(unsigned int*) { return QV_RESULT_FAILED; }
    virtual QV_RESULT SetVideoInputSource(unsigned int) { return QV_RESULT_FAILED; }
    virtual QV_RESULT GetAudioInputSource(unsigned int*) { return QV_RESULT_FAILED; }
    virtual QV_RESULT SetAudioInputSource(unsigned int) { return QV_RESULT_FAILED; }
    virtual QV_RESULT SetEDID(unsigned char*, unsigned long) { return QV_RESULT_FAILED; }
    virtual QV_RESULT GetEDID(unsigned char*, unsigned long*) { return QV_RESULT_FAILED; }
    virtual QV_RESULT GetInputSpecificStatus(_QVCAP_INPUT_SPECIFIC_STATUS*) {
        return QV_RESULT_FAILED;
    }
    virtual QV_RESULT GetVideoSignalStatus(_QVCAP_VIDEO_SIGNAL_STATUS*) { return QV_RESULT_FAILED; }
    virtual QV_RESULT GetAudioSignalStatus(_QVCAP_AUDIO_SIGNAL_STATUS*) { return QV_RESULT_FAILED; }
    virtual QV_RESULT GetHDMIInfoFrameValidFlags(unsigned int*) { return QV_RESULT_FAILED; }
    virtual QV_RESULT GetHDMIInfoFramePacket(_QVCAP_HDMI_INFOFRAME_ID, _HDMI_INFOFRAME_PACKET*) {
        return QV_RESULT_FAILED;
    }
    virtual QV_RESULT SetVideoInputAspectRatio(int, int) { return QV_RESULT_FAILED; }
    virtual QV_RESULT GetVideoInputAspectRatio(int*, int*) { return QV_RESULT_FAILED; }
    virtual QV_RESULT SetVideoInputColorFormat(_QVCAP_VIDEO_COLOR_FORMAT) {
        return QV_RESULT_FAILED;
    }
    virtual QV_RESULT GetVideoInputColorFormat(_QVCAP_VIDEO_COLOR_FORMAT*) {
        return QV_RESULT_FAILED;
    }
    virtual QV_RESULT SetVideoInputQuantizationRange(_QVCAP_VIDEO_QUANTIZATION_RANGE) {
        return QV_RESULT_FAILED;
    }
    virtual QV_RESULT GetVideoInputQuantizationRange(_QVCAP_VIDEO_QUANTIZATION_RANGE*) {
        return QV_RESULT_FAILED;
    }
    virtual QV_RESULT SetLEDMode(unsigned int) { return QV_RESULT_FAILED; }
    virtual QV_RESULT GetFirmwareStorageInfo(_QVCAP_FIRMWARE_STORAGE*) { return QV_RESULT_FAILED; }
    virtual QV_RESULT EraseFirmwareData(unsigned int, unsigned int) { return QV_RESULT_FAILED; }
    virtual QV_RESULT ReadFirmwareData(unsigned int, unsigned char*, unsigned int, unsigned int*) {
        return QV_RESULT_FAILED;
    }
    virtual QV_RESULT WriteFirmwareData(unsigned int, unsigned char*, unsigned int) {
        return QV_RESULT_FAILED;
    }
    virtual QV_RESULT SetSDIANCType(_QVCAP_SDI_ANC_TYPE*) { return QV_RESULT_FAILED; }
    virtual QV_RESULT GetSDIANCPacket(_QVCAP_SDI_ANC_PACKET*) { return QV_RESULT_FAILED; }

    // This object as its kind; null when it is of the other kind. Only the object knows it: never
    // guessed from the family text, which comes from the device.
    virtual CQVCaptureBase* AsPcieChannel() { return nullptr; }
    virtual CQVUSBCaptureBase* AsUsbChannel() { return nullptr; }
};
