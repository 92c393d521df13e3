// The recorder schema as the engine reads it at `init`, and the records it
// answers with. Keys are the wire's own, underscores included. Defaults are
// the engine's: leaving a key out and sending its default are the same.

export type VideoCodec = 'h264' | 'hevc';
export type ColorSpace = 'sRGB' | 'displayP3';
export type SystemAudioBackend = 'screenCaptureKit' | 'coreAudio' | '_beta_coreAudio';

/** One file. */
export interface SingleFileOutput {
  /** @defaultValue 'singleFile' */
  output?: 'singleFile';
  /** The file's name inside the bundle; the default depends on the kind (`microphone-<id>.m4a`). */
  filename?: string;
}

/** A playlist of fMP4 segments (6 s each) beside a master playlist. */
export interface SegmentedOutput {
  output: 'segmented';
  /** Prefix of the playlist and segment names; the default depends on the kind (`microphone-<id>`). */
  filenamePrefix?: string;
  /**
   * Callback identifier that hears of each finished segment file. The typed
   * recorder picks one itself and emits `segment` events; give one only to
   * route the callbacks yourself.
   */
  segmentCallback?: string;
}

/** Audio handed to the host as it is captured; nothing goes into the bundle. */
export interface StreamOutput {
  output: 'stream';
  /**
   * Callback identifier of the audio buffers. The typed recorder picks one
   * itself and offers the buffers through `Recorder.audio(itemIndex)`.
   */
  streamCallback?: string;
}

export type VideoOutput = SingleFileOutput | SegmentedOutput;
export type AudioOutput = SingleFileOutput | SegmentedOutput | StreamOutput;

/** A camera and a microphone in one file (or one set of segments). */
export type WebcamItem = {
  type: 'webcam';
  /** Microphone id, as `getMicrophones` lists it. */
  microphone: string;
  /** Camera id, as `getCameras` lists it. */
  camera: string;
  /** @defaultValue 'h264' */
  videoCodec?: VideoCodec;
  /** @defaultValue false */
  preserveActiveCameraConfiguration?: boolean;
  /** @defaultValue false */
  leftAudioChannelOnly?: boolean;
  /** Seconds. @defaultValue 0 */
  audioDelay?: number;
} & VideoOutput;

/** A whole display. */
export type DisplayItem = {
  type: 'display';
  /** Display id (unsigned 32-bit), as `getDisplays` lists it. */
  display: number;
  /** @defaultValue 'sRGB' */
  colorSpace?: ColorSpace;
  /** @defaultValue 'h264' */
  videoCodec?: VideoCodec;
  /** @defaultValue true */
  shows_cursor?: boolean;
  /** @defaultValue false */
  mouse_events?: boolean;
  /** @defaultValue false */
  keyboard_events?: boolean;
  /** @defaultValue false */
  include_audio?: boolean;
} & VideoOutput;

/** One window, as a crop of its display. */
export type WindowBasedCropItem = {
  type: 'windowBasedCrop';
  /** Window id (unsigned 32-bit), as `getWindows` lists it. */
  window: number;
  /** @defaultValue 'sRGB' */
  colorSpace?: ColorSpace;
  /** @defaultValue 'h264' */
  videoCodec?: VideoCodec;
  /** @defaultValue true */
  shows_cursor?: boolean;
  /** @defaultValue false */
  mouse_events?: boolean;
  /** @defaultValue false */
  keyboard_events?: boolean;
} & VideoOutput;

/** A phone or tablet; always one file. */
export interface AppleDeviceItem {
  type: 'appleDevice' | 'appleDeviceStaticOrientation';
  /** Device id, as `getAppleDevices` lists it. */
  device: string;
  filename?: string;
}

/** What the system plays: everything except some processes, or only some applications. */
export type SystemAudioItem = {
  type: 'systemAudio';
  mode: 'exclude' | 'include';
  /** Absent: per-application capture where the sound server offers it, else the whole output. */
  backend?: SystemAudioBackend;
  /** With mode "exclude"; only "currentProcess" counts, other words are ignored. @defaultValue [] */
  excludeOptions?: string[];
  /** With mode "exclude": process ids left out. @defaultValue [] */
  excludedProcessIDs?: number[];
  /** With mode "include": the process ids recorded. @defaultValue [] */
  includedApplicationIDs?: number[];
} & AudioOutput;

/** What one application plays. */
export type ApplicationAudioItem = {
  type: 'applicationAudio';
  /** Process id, as `getRunningApplications` lists it. */
  applicationID: number;
  backend?: SystemAudioBackend;
} & AudioOutput;

/** A microphone. */
export type MicrophoneItem = {
  type: 'microphone';
  /** Microphone id, as `getMicrophones` lists it (on linux: the sound-server source name). */
  microphone: string;
  /** @defaultValue false */
  leftChannelOnly?: boolean;
  /** Seconds. @defaultValue 0 */
  audioDelay?: number;
} & AudioOutput;

export type SchemaItem =
  | WebcamItem
  | DisplayItem
  | WindowBasedCropItem
  | AppleDeviceItem
  | SystemAudioItem
  | ApplicationAudioItem
  | MicrophoneItem;

export type SchemaItemType = SchemaItem['type'];

export interface RecorderSettings {
  /** @defaultValue true */
  allowFrameReordering?: boolean;
}

export interface RecorderSchema {
  /** The bundle folder, which must not exist yet. Absent: a new folder under `$TMPDIR` (or `/tmp`). */
  output_directory?: string;
  settings?: RecorderSettings;
  items: SchemaItem[];
}

/**
 * The defaults the engine applies to keys left out, per item kind. Sending an
 * item with these filled in records the same as sending it without them.
 */
export const itemDefaults = {
  webcam: {
    videoCodec: 'h264',
    preserveActiveCameraConfiguration: false,
    leftAudioChannelOnly: false,
    audioDelay: 0,
    output: 'singleFile',
  },
  display: {
    colorSpace: 'sRGB',
    videoCodec: 'h264',
    shows_cursor: true,
    mouse_events: false,
    keyboard_events: false,
    include_audio: false,
    output: 'singleFile',
  },
  windowBasedCrop: {
    colorSpace: 'sRGB',
    videoCodec: 'h264',
    shows_cursor: true,
    mouse_events: false,
    keyboard_events: false,
    output: 'singleFile',
  },
  appleDevice: {},
  appleDeviceStaticOrientation: {},
  systemAudio: { excludeOptions: [], excludedProcessIDs: [], output: 'singleFile' },
  applicationAudio: { output: 'singleFile' },
  microphone: { leftChannelOnly: false, audioDelay: 0, output: 'singleFile' },
} as const satisfies Record<SchemaItemType, Record<string, unknown>>;

/** The item with every key it left out set to the engine's default (the output mode's keys as they are). */
export function withDefaults<T extends SchemaItem>(item: T): T {
  return { ...itemDefaults[item.type], ...item } as T;
}

// ---- records the engine answers with -------------------------------------------------------

export interface Bounds {
  x: number;
  y: number;
  width: number;
  height: number;
}

export type DeviceAvailability = 'available' | 'lidClosed' | 'unknownSuspended' | 'notConnected';

export interface Display {
  id: number;
  localizedName?: string;
  frame: Bounds;
  isMain: boolean;
  availability: 'available' | 'lidClosed' | 'notConnected';
}

export interface Window {
  id: number;
  title?: string;
  frame: Bounds;
  level: number;
  application_process_id?: number;
  application_name?: string;
}

/** A camera or a microphone. */
export interface AudioVideoDevice {
  id: string;
  name: string;
  model_id: string;
  manufacturer: string;
  availability: DeviceAvailability;
  /** Cameras only, while the engine's preview server runs. */
  preview_url?: string;
}

export interface AppleDevice {
  id: string;
  name: string;
  model_id?: string;
  availability: 'available' | 'notPaired' | 'notConnected' | 'pairedNeedsConnect' | 'pairedNeedsReconnect';
}

export interface RunningApplication {
  id: number;
  name?: string;
  bundle_identifier?: string;
  availability: 'available' | 'notRunning';
}

export type FileAssetType = 'screen' | 'webcam' | 'audio' | 'mouse' | 'systemAudio' | 'appleDevice' | 'topWindow';

export interface FileAsset {
  type: FileAssetType;
  /** The file's name; it lies directly in the bundle folder. */
  filename: string;
  related?: string[];
  recordingSize?: { width: number; height: number };
  recordingScale?: number;
  videoDimensions?: { width: number; height: number };
}

/** The bundle's description, the same as its `orvane.json`. */
export interface BundleInfo {
  version: number;
  files: FileAsset[];
  /** Seconds recorded. */
  duration: number;
}

/** What `stop` answers. */
export interface RecordingResult {
  /** The bundle folder's plain path (no scheme). */
  url: string;
  info: BundleInfo;
}

/** One streamed audio buffer, as it travels on the wire. */
export interface AudioBufferData {
  sampleRate: number;
  numberOfChannels: number;
  numberOfFrames: number;
  /** One base64 string per channel of little-endian float32 samples. */
  channelData: string[];
}
