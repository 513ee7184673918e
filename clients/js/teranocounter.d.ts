/** Why a call of TeranoCounter failed: the `code` of the Error it rejects with. */
export type TeranoCounterErrorCode =
  /** The browser keeps this page from the local network (Local Network Access). */
  | "LOCAL_NETWORK_ACCESS_BLOCKED"
  /** Nothing answers at the service's address. */
  | "SERVICE_NOT_RUNNING"
  /** The text has characters code page 949 lacks; `characters` lists them. Nothing was sent. */
  | "NOT_CP949"
  /** A missing address, a port outside 0-65535, bytes outside 0-255, a requesttype that is not a terminal request. Nothing was sent. */
  | "INVALID_REQUEST"
  /** The terminal did not answer within answerTimeoutMs. */
  | "NO_ANSWER"
  /** Not connected, or the connection closed before the answer came. */
  | "DISCONNECTED";

export interface TeranoCounterError extends Error {
  code: TeranoCounterErrorCode;
  /** For "NOT_CP949": the characters code page 949 lacks, each once. */
  characters?: string[];
}

/** A card terminal's answer. */
export interface Answer {
  /** The terminal's answer text, decoded from code page 949. */
  data: string;
  /** Always "CAT". */
  devicetype: string;
  /** The terminal model, e.g. "KIS7430", "SMT-T263", "TS-132N:TS-167". */
  devicename: string;
}

export type LocalNetworkAccess = "granted" | "prompt" | "denied" | "not-needed" | "unsupported";

export interface ReconnectOptions {
  /** The first wait after the connection is lost (default 500 ms); it doubles at each failed attempt. */
  minDelayMs?: number;
  /** The longest wait between attempts (default 30000 ms). */
  maxDelayMs?: number;
}

export interface TeranoCounterOptions {
  /** Default "ws://127.0.0.1:49999/". */
  url?: string;
  /** How long payment() waits for its answer. Default 310000 ms (a KIS terminal waits 300 s for the customer). */
  answerTimeoutMs?: number;
  /** Connect again, with back-off, whenever the connection is lost or cannot be made, until close(). Default false. */
  reconnect?: boolean | ReconnectOptions;
  /** A WebSocket implementation to use instead of globalThis.WebSocket. */
  WebSocket?: new (url: string) => WebSocket;
}

export interface KitchenOrder {
  /** The printer's address. */
  ip: string;
  /** The printer's TCP port, 0-65535 (e.g. 9100). */
  port: number | string;
  /** The order text; ESC/POS commands may be written into it as control characters. */
  text: string;
}

export interface TerminalRequest {
  /** "KIS", "KICC", "SMARTRO" (or in lower case). */
  van: string;
  /** The vendor's request frame, byte for byte. */
  bytes: Uint8Array | ArrayBuffer | ArrayLike<number>;
  /** Default "payment". */
  requesttype?: string;
}

export interface Slip {
  van: string;
  text: string;
}

export interface TeranoCounterEventMap {
  open: Event;
  close: CustomEvent<{ code: number; reason: string }>;
  answer: CustomEvent<Answer>;
}

/** A connection to the Terano Counter service. */
export class TeranoCounter extends EventTarget {
  constructor(options?: TeranoCounterOptions);

  readonly url: string;
  readonly answerTimeoutMs: number;
  /** True while the connection is open. */
  readonly connected: boolean;

  /** Resolves once the connection is open; rejects with "LOCAL_NETWORK_ACCESS_BLOCKED" or "SERVICE_NOT_RUNNING". */
  connect(): Promise<void>;
  /** Closes the connection and stops reconnecting; waiting payments reject with "DISCONNECTED". */
  close(): void;

  /** Sends a kitchen order; resolves once sent (the service gives no answer for it). */
  kitchenPrint(order: KitchenOrder): Promise<void>;
  /** Sends a terminal request; resolves with the next answer not taken by an older payment. */
  payment(request: TerminalRequest): Promise<Answer>;
  /** Sends a slip print to the card terminal's printer; resolves once sent. */
  print(slip: Slip): Promise<void>;

  addEventListener<K extends keyof TeranoCounterEventMap>(
    type: K,
    listener: (event: TeranoCounterEventMap[K]) => void,
    options?: boolean | AddEventListenerOptions,
  ): void;
  addEventListener(
    type: string,
    listener: EventListenerOrEventListenerObject | null,
    options?: boolean | AddEventListenerOptions,
  ): void;
  removeEventListener<K extends keyof TeranoCounterEventMap>(
    type: K,
    listener: (event: TeranoCounterEventMap[K]) => void,
    options?: boolean | EventListenerOptions,
  ): void;
  removeEventListener(
    type: string,
    listener: EventListenerOrEventListenerObject | null,
    options?: boolean | EventListenerOptions,
  ): void;

  /** Whether the browser lets this page reach the service on this computer. */
  static localNetworkAccess(): Promise<LocalNetworkAccess>;
  /** The characters of `text` code page 949 lacks, each once; empty when it can be printed. */
  static notInCp949(text: string): string[];
}

/** The characters of `text` code page 949 lacks, each once; empty when it can be printed. */
export function notInCp949(text: string): string[];

/** The request as JSON in which every character is ASCII (\uXXXX escapes). */
export function asciiJson(request: object): string;

export default TeranoCounter;
