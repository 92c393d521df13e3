// Every failure the engine can answer with, as a class a host can test with
// `instanceof`, plus the client's own failures (the engine went away, it wrote
// something that is not the protocol).

/** The library's error codes and their numbers, as the engine sends them. */
export const orvaneErrorCodes = {
  invalidConfiguration: -1002,
  microphonePermissionRequired: -1101,
  cameraPermissionRequired: -1102,
  screenRecordingPermissionRequired: -1103,
  systemAudioPermissionRequired: -1104,
  microphoneUnavailable: -1201,
  cameraUnavailable: -1202,
  displayUnavailable: -1203,
  windowUnavailable: -1204,
  systemAudioUnavailable: -1205,
  appleDeviceUnavailable: -1206,
  inputRecordingUnavailable: -1207,
  noVideoFramesReceived: -1301,
  noAudioSamplesReceived: -1302,
  screenCaptureStoppedLowDiskSpace: -1303,
  screenCaptureStoppedWithError: -1304,
  screenCaptureStoppedWithoutError: -1305,
  internalError: -1600,
  uncaughtError: -1601,
  internalConductorError: -1602,
  configurationFailed: -1603,
  configurationNotSupported: -1604,
  audioFormatError: -1605,
  videoFormatError: -1606,
  audioFormatConfigurationFailed: -1607,
  videoFormatConfigurationFailed: -1608,
  mediaFormatInitializationFailed: -1609,
  mediaFormatConfigurationFailed: -1610,
  audioDeviceInitializationFailed: -1611,
  audioDeviceConfigurationFailed: -1612,
  assetWriterFailed: -1613,
  tccUnavailableError: -1614,
  audioProcessingFailed: -1701,
  audioBufferProcessingFailed: -1702,
  audioBufferCreationFailed: -1703,
  inputEventProcessingFailed: -1704,
  assetWriterCreationFailed: -1705,
  fileOperationFailed: -1706,
  windowOperationFailed: -1707,
} as const;

export type OrvaneErrorCode = keyof typeof orvaneErrorCodes;

/** Response statuses of the protocol. */
export const HVRPCStatus = {
  success: 200,
  operationFailed: 202,
  badRequest: 400,
  notFound: 404,
  released: 405,
  conflict: 409,
  internalError: 500,
  notImplemented: 501,
  unsupportedVersion: 505,
} as const;

/** `{"userMessage","debugDescription"}`: a failure of the protocol layer. */
export interface ProtocolErrorPayload {
  userMessage?: string;
  debugDescription?: string;
}

/** `{"name":"OrvaneError",...}`: a failure of the library. */
export interface OrvaneErrorPayload {
  name: 'OrvaneError';
  code: string;
  codeNumber: number;
  message?: string;
  debugDescription?: string;
}

/** `{"name":"NSError",...}`: any other failure (decoding, a group of failures, the system). */
export interface PlatformErrorPayload {
  name: 'NSError';
  errorDomain: string;
  errorCode: number;
  message?: string;
  debugDescription?: string;
}

export type ErrorPayload = OrvaneErrorPayload | PlatformErrorPayload | ProtocolErrorPayload;

/** The base of every error this package throws. */
export class OrvaneClientError extends Error {
  /** The response status that carried the error, when it came in a response. */
  readonly status: number | undefined;
  /** The payload as the engine sent it. */
  readonly payload: unknown;

  constructor(message: string, status?: number, payload?: unknown) {
    super(message);
    this.name = new.target.name;
    this.status = status;
    this.payload = payload;
  }
}

/** A failure of the library: status 202 (or an abort callback) with an "OrvaneError" payload. */
export class OrvaneError extends OrvaneClientError {
  /** The code's name; a newer engine may send a name this package does not list. */
  readonly code: OrvaneErrorCode | (string & {});
  readonly codeNumber: number;
  readonly debugDescription: string | undefined;

  constructor(payload: OrvaneErrorPayload, status?: number) {
    super(payload.message ?? `Orvane error ${payload.code} (${payload.codeNumber})`, status, payload);
    this.code = payload.code;
    this.codeNumber = payload.codeNumber;
    this.debugDescription = payload.debugDescription;
  }
}

/**
 * Any other failure of an action: a params value of the wrong shape (domain
 * "DecodingError"), a group of failures at stop, a system error.
 */
export class PlatformError extends OrvaneClientError {
  readonly errorDomain: string;
  readonly errorCode: number;
  readonly debugDescription: string | undefined;

  constructor(payload: PlatformErrorPayload, status?: number) {
    super(payload.message ?? `${payload.errorDomain} error ${payload.errorCode}`, status, payload);
    this.errorDomain = payload.errorDomain;
    this.errorCode = payload.errorCode;
    this.debugDescription = payload.debugDescription;
  }
}

/** A status other than 200 whose payload is a protocol error (`userMessage`, `debugDescription`). */
export class HVRPCError extends OrvaneClientError {
  readonly userMessage: string | undefined;
  readonly debugDescription: string | undefined;

  constructor(status: number, payload: ProtocolErrorPayload) {
    super(payload.debugDescription ?? payload.userMessage ?? `HVRPC status ${status}`, status, payload);
    this.userMessage = payload.userMessage;
    this.debugDescription = payload.debugDescription;
  }
}

/** 202 with a protocol payload: the action failed in the protocol layer of the type. */
export class OperationFailedError extends HVRPCError {}
/** 400: valid JSON but not a valid request. */
export class BadRequestError extends HVRPCError {}
/** 404: unknown procedure, type, target or action. */
export class NotFoundError extends HVRPCError {}
/** 405: the target was released with `manual-release`. */
export class ReleasedError extends HVRPCError {}
/** 409: the target identifier is taken. */
export class ConflictError extends HVRPCError {}
/** 500: the engine failed internally. */
export class InternalEngineError extends HVRPCError {}
/** 501: not implemented by the engine. */
export class NotImplementedError extends HVRPCError {}
/** 505: the engine does not speak this protocol version. */
export class UnsupportedVersionError extends HVRPCError {}

const protocolErrorClasses: Record<number, new (status: number, payload: ProtocolErrorPayload) => HVRPCError> = {
  202: OperationFailedError,
  400: BadRequestError,
  404: NotFoundError,
  405: ReleasedError,
  409: ConflictError,
  500: InternalEngineError,
  501: NotImplementedError,
  505: UnsupportedVersionError,
};

/** The engine ended (exited, crashed or was killed) while calls were pending, or before a call. */
export class EngineExitedError extends OrvaneClientError {
  readonly exitCode: number | null;
  readonly signal: NodeJS.Signals | null;

  constructor(message: string, exitCode: number | null, signal: NodeJS.Signals | null) {
    super(message);
    this.exitCode = exitCode;
    this.signal = signal;
  }
}

function isObject(value: unknown): value is Record<string, unknown> {
  return typeof value === 'object' && value !== null && !Array.isArray(value);
}

/**
 * The error of an error payload: `OrvaneError` or `PlatformError` by its
 * "name", else the protocol error class of the status.
 */
export function errorFromPayload(payload: unknown, status?: number): OrvaneClientError {
  if (isObject(payload)) {
    if (payload.name === 'OrvaneError' && typeof payload.code === 'string')
      return new OrvaneError(payload as unknown as OrvaneErrorPayload, status);
    if (payload.name === 'NSError' && typeof payload.errorDomain === 'string')
      return new PlatformError(payload as unknown as PlatformErrorPayload, status);
  }
  const protocolPayload: ProtocolErrorPayload = isObject(payload)
    ? {
        userMessage: typeof payload.userMessage === 'string' ? payload.userMessage : undefined,
        debugDescription: typeof payload.debugDescription === 'string' ? payload.debugDescription : undefined,
      }
    : {};
  const effectiveStatus = status ?? HVRPCStatus.operationFailed;
  const ErrorClass = protocolErrorClasses[effectiveStatus] ?? HVRPCError;
  return new ErrorClass(effectiveStatus, protocolPayload);
}
