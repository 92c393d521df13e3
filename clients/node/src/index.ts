// The typed client of orvane-rpc for host applications.

export {
  OrvaneClient,
  resolveEngineExecutable,
  type CallbackHandler,
  type EngineExit,
  type HVRPCRequest,
  type OrvaneClientEvents,
  type OrvaneClientOptions,
} from './client.js';
export {
  Recorder,
  decodeAudioBuffer,
  decodeChannel,
  type AbortReasonKind,
  type AudioBuffer,
  type RecorderAbort,
  type RecorderEvents,
  type RecorderOptions,
  type SegmentEvent,
} from './recorder.js';
export * from './errors.js';
export * from './schema.js';
