// Client for the Terano Counter service: kitchen orders, card payments and slip prints from a
// POS page (or Node) over the service's local WebSocket.
//
// The service trusts its POS: a frame it cannot read stops it (its supervisor restarts it a
// moment later, and the payment in progress is lost). So everything here is checked before it
// is sent: frames are pure ASCII, "data" is always bytes 0-255, a kitchen order always has a
// string address, a decimal port and text that code page 949 can print.

/** @type {string} */
const DEFAULT_URL = "ws://127.0.0.1:49999/";

// A KIS terminal waits up to 300 s for the customer; give the answer a little more.
const DEFAULT_ANSWER_TIMEOUT_MS = 310_000;

const DEFAULT_RECONNECT = { minDelayMs: 500, maxDelayMs: 30_000 };

// CustomEvent is missing in older Node releases; an Event with a detail does the same job.
const DetailEvent =
  globalThis.CustomEvent ??
  class DetailEvent extends Event {
    constructor(type, init = {}) {
      super(type);
      this.detail = init.detail ?? null;
    }
  };

/**
 * An Error with a machine-readable `code`.
 * @param {string} code
 * @param {string} message
 * @param {object} [extra]
 */
function failure(code, message, extra = {}) {
  return Object.assign(new Error(message), { code }, extra);
}

// --- code page 949 -------------------------------------------------------------------------

const isPrivateUse = (cp) => cp >= 0xe000 && cp <= 0xf8ff;

let cp949Cache = null;

/**
 * Every non-ASCII character code page 949 can encode, read from the platform's own "euc-kr"
 * decoder by decoding each double-byte code once.
 *
 * Browsers' "euc-kr" is the whole of code page 949. Node's (ICU) is plain EUC-KR: it lacks the
 * 8,822 Hangul syllables of the UHC extension and the two symbols code page 949 added to
 * KS X 1001 (€ at A2E6, ® at A2E7), which are added here, and it maps unassigned codes into the
 * private use area, which code page 949 does not, so those are left out. Without any decoder
 * only the Hangul syllables are known, so other characters are refused rather than risked.
 * @returns {Set<number>} code points
 */
function cp949CodePoints() {
  if (cp949Cache) return cp949Cache;
  const known = new Set();
  let decoder = null;
  try {
    decoder = new TextDecoder("euc-kr");
  } catch {
    // no decoder for Korean: fall back to what code page 949 is sure to have
  }
  let hasUhc = false;
  if (decoder) {
    // Each code is followed by a line feed, so that an invalid code cannot pull the next one
    // out of step.
    const bytes = [];
    for (let lead = 0x81; lead <= 0xfe; lead++)
      for (let trail = 0x41; trail <= 0xfe; trail++) bytes.push(lead, trail, 0x0a);
    for (const piece of decoder.decode(new Uint8Array(bytes)).split("\n")) {
      const chars = [...piece];
      if (chars.length !== 1) continue;
      const cp = chars[0].codePointAt(0);
      if (cp > 0x7f && cp !== 0xfffd && !isPrivateUse(cp)) known.add(cp);
    }
    hasUhc = known.has(0xac02); // the first UHC code, 81 41
  }
  if (!hasUhc) {
    for (let cp = 0xac00; cp <= 0xd7a3; cp++) known.add(cp);
    if (decoder) known.add(0x20ac).add(0x00ae);
  }
  cp949Cache = known;
  return known;
}

/**
 * The distinct characters of `text` that code page 949 cannot encode, in order of first
 * appearance (an unpaired surrogate counts as one). Empty when the text can be printed.
 * @param {string} text
 * @returns {string[]}
 */
export function notInCp949(text) {
  const known = cp949CodePoints();
  const missing = [];
  for (const c of String(text)) {
    const cp = c.codePointAt(0);
    if (cp <= 0x7f || known.has(cp)) continue;
    if (!missing.includes(c)) missing.push(c);
  }
  return missing;
}

// --- frames --------------------------------------------------------------------------------

const loneSurrogate = /[\ud800-\udbff](?![\udc00-\udfff])|(?<![\ud800-\udbff])[\udc00-\udfff]/g;

/**
 * The request as a JSON frame in which every character is ASCII: anything past ASCII is a
 * \uXXXX escape (a surrogate pair as two escapes). An unpaired surrogate, which the service
 * would also stop on, becomes U+FFFD.
 * @param {object} request
 * @returns {string}
 */
export function asciiJson(request) {
  const json = JSON.stringify(request, (key, value) =>
    typeof value === "string" ? value.replace(loneSurrogate, "\ufffd") : value,
  );
  return json.replace(/[\u007f-\uffff]/g, (c) => "\\u" + c.charCodeAt(0).toString(16).padStart(4, "0"));
}

/**
 * @param {ArrayLike<number>|ArrayBuffer} bytes
 * @returns {number[]}
 */
function byteArray(bytes) {
  if (bytes instanceof ArrayBuffer) bytes = new Uint8Array(bytes);
  else if (ArrayBuffer.isView(bytes) && !(bytes instanceof Uint8Array))
    bytes = new Uint8Array(bytes.buffer, bytes.byteOffset, bytes.byteLength);
  if (bytes == null || typeof bytes === "string" || typeof bytes.length !== "number")
    throw failure("INVALID_REQUEST", "bytes must be a Uint8Array, an ArrayBuffer or an array of integers 0-255");
  const out = Array.from(bytes);
  if (!out.every((b) => Number.isInteger(b) && b >= 0 && b <= 255))
    throw failure("INVALID_REQUEST", "bytes must be integers 0-255");
  return out;
}

/**
 * Text as UTF-8 bytes, refused when code page 949 lacks any of its characters: the service
 * stops on such a kitchen order and on such a slip print to a USB terminal.
 * @param {string} text
 * @returns {number[]}
 */
function printableBytes(text) {
  if (typeof text !== "string") throw failure("INVALID_REQUEST", "text must be a string");
  const missing = notInCp949(text);
  if (missing.length)
    throw failure("NOT_CP949", "code page 949 cannot print: " + missing.join(" "), { characters: missing });
  return Array.from(new TextEncoder().encode(text));
}

// --- where the page is ---------------------------------------------------------------------

/** True for a page served from this machine, which needs no permission to reach it. */
function pageIsLocal() {
  const place = globalThis.location;
  if (!place || typeof place.hostname !== "string") return false;
  if (place.protocol === "file:") return true;
  const host = place.hostname.toLowerCase();
  return (
    host === "localhost" ||
    host.endsWith(".localhost") ||
    /^127\.\d{1,3}\.\d{1,3}\.\d{1,3}$/.test(host) ||
    host === "[::1]" ||
    host === "::1"
  );
}

/** The browser's Local Network Access permission state, or null when it has none. */
async function permissionState() {
  const permissions = globalThis.navigator?.permissions;
  if (!permissions || typeof permissions.query !== "function") return null;
  // The service is on loopback, which newer browsers ask about under its own name.
  for (const name of ["loopback-network", "local-network-access"]) {
    try {
      return (await permissions.query({ name })).state;
    } catch {
      // this browser does not know the name
    }
  }
  return null;
}

// --- the client ----------------------------------------------------------------------------

/**
 * @typedef {{data: string, devicetype: string, devicename: string}} Answer
 */

/**
 * A connection to the Terano Counter service.
 *
 * Events: "open" (Event), "close" (detail `{code, reason}`), "answer" (detail an Answer, for
 * every terminal answer, held answers delivered after a reload included).
 */
export class TeranoCounter extends EventTarget {
  /**
   * @param {object} [options]
   * @param {string} [options.url] the service's address
   * @param {number} [options.answerTimeoutMs] how long payment() waits for its answer
   * @param {boolean|{minDelayMs?: number, maxDelayMs?: number}} [options.reconnect] connect again,
   *   with back-off, after the connection is lost or could not be made
   * @param {typeof WebSocket} [options.WebSocket] a WebSocket implementation (default: the global one)
   */
  constructor({ url = DEFAULT_URL, answerTimeoutMs = DEFAULT_ANSWER_TIMEOUT_MS, reconnect = false, WebSocket } = {}) {
    super();
    this.url = url;
    this.answerTimeoutMs = answerTimeoutMs;
    this.reconnect = reconnect ? { ...DEFAULT_RECONNECT, ...(reconnect === true ? {} : reconnect) } : null;
    this.WebSocketImpl = WebSocket ?? globalThis.WebSocket;
    /** @type {WebSocket|null} */
    this.socket = null;
    this.opening = null;
    this.waiting = []; // payments waiting for an answer, oldest first
    this.retryDelayMs = this.reconnect?.minDelayMs ?? 0;
    this.retryTimer = null;
    this.stopped = false;
  }

  /** True while the connection is open. */
  get connected() {
    return this.socket !== null && this.socket.readyState === 1;
  }

  /**
   * Opens the connection. Resolves once it is open; rejects with code
   * "LOCAL_NETWORK_ACCESS_BLOCKED" when the browser kept this page from the local network, or
   * "SERVICE_NOT_RUNNING" otherwise.
   * @returns {Promise<void>}
   */
  connect() {
    this.stopped = false;
    if (this.connected) return Promise.resolve();
    if (!this.opening) this.opening = this.openSocket().finally(() => (this.opening = null));
    return this.opening;
  }

  /**
   * Closes the connection and stops reconnecting. Payments still waiting are rejected with
   * "DISCONNECTED".
   */
  close() {
    this.stopped = true;
    clearTimeout(this.retryTimer);
    this.retryTimer = null;
    const socket = this.socket;
    this.socket = null;
    this.failWaiting();
    if (socket) socket.close(1000);
  }

  openSocket() {
    clearTimeout(this.retryTimer);
    this.retryTimer = null;
    return new Promise((resolve, reject) => {
      if (typeof this.WebSocketImpl !== "function") {
        reject(failure("SERVICE_NOT_RUNNING", "no WebSocket implementation in this environment"));
        return;
      }
      let socket;
      try {
        socket = new this.WebSocketImpl(this.url);
      } catch (error) {
        reject(failure("SERVICE_NOT_RUNNING", "cannot connect to " + this.url + ": " + error.message));
        return;
      }
      this.socket = socket;
      let opened = false;
      let settled = false;
      // A connection that never opened. Browsers fire "error" then "close"; some WebSocket
      // implementations (Node 20's) fire only "error", so either one ends the attempt.
      const notOpened = () => {
        if (settled) return;
        settled = true;
        if (this.socket === socket) this.socket = null;
        this.whyNotOpen().then(reject);
        this.scheduleReconnect();
      };
      socket.addEventListener("open", () => {
        opened = settled = true;
        this.retryDelayMs = this.reconnect?.minDelayMs ?? 0;
        resolve();
        this.dispatchEvent(new Event("open"));
      });
      socket.addEventListener("message", (event) => {
        if (this.socket === socket) this.receive(event.data);
      });
      socket.addEventListener("error", () => {
        if (!opened) notOpened();
      });
      socket.addEventListener("close", (event) => {
        if (!opened) return notOpened();
        if (this.socket === socket) {
          this.socket = null;
          this.failWaiting();
        }
        this.dispatchEvent(new DetailEvent("close", { detail: { code: event.code, reason: event.reason } }));
        this.scheduleReconnect();
      });
    });
  }

  /** The error for a connection that never opened. */
  async whyNotOpen() {
    const access = await TeranoCounter.localNetworkAccess();
    if (access === "denied" || access === "prompt")
      return failure(
        "LOCAL_NETWORK_ACCESS_BLOCKED",
        "the browser does not let this page reach the service on this computer (local network access: " + access + ")",
      );
    return failure("SERVICE_NOT_RUNNING", "the Terano Counter service does not answer at " + this.url);
  }

  scheduleReconnect() {
    if (!this.reconnect || this.stopped || this.retryTimer) return;
    const delay = this.retryDelayMs;
    this.retryDelayMs = Math.min(delay * 2, this.reconnect.maxDelayMs);
    this.retryTimer = setTimeout(() => {
      this.retryTimer = null;
      if (!this.stopped && !this.socket) this.connect().catch(() => {});
    }, delay);
  }

  failWaiting() {
    for (const payment of this.waiting.splice(0)) {
      clearTimeout(payment.timer);
      payment.reject(failure("DISCONNECTED", "the connection to the service closed before the terminal answered"));
    }
  }

  receive(text) {
    if (typeof text !== "string") return; // the service sends text frames only
    let message;
    try {
      message = JSON.parse(text);
    } catch {
      return;
    }
    if (!message || typeof message !== "object" || !message.response || typeof message.response !== "object") return;
    /** @type {Answer} */
    const answer = {
      data: String(message.response.data ?? ""),
      devicetype: String(message.devicetype ?? ""),
      devicename: String(message.devicename ?? ""),
    };
    const payment = this.waiting.shift();
    if (payment) {
      clearTimeout(payment.timer);
      payment.resolve(answer);
    }
    this.dispatchEvent(new DetailEvent("answer", { detail: answer }));
  }

  /** Sends one request; throws "DISCONNECTED" when the connection is not open. */
  send(request) {
    const frame = asciiJson(request);
    if (!this.connected) throw failure("DISCONNECTED", "not connected to the service");
    this.socket.send(frame);
  }

  /**
   * Prints a kitchen order on a network printer. Resolves once the order is sent (the service
   * gives no answer for it). Rejects with "NOT_CP949" (error.characters lists them) when the
   * text has characters code page 949 lacks, "INVALID_REQUEST" for a missing address or a port
   * that is not 0-65535, and "DISCONNECTED" when not connected; nothing is sent then.
   * @param {{ip: string, port: number|string, text: string}} order
   * @returns {Promise<void>}
   */
  async kitchenPrint({ ip, port, text }) {
    if (typeof ip !== "string" || ip.trim() === "") throw failure("INVALID_REQUEST", "ip must be the printer's address");
    const portText = String(port).trim();
    if (!/^\d{1,5}$/.test(portText) || Number(portText) > 65535)
      throw failure("INVALID_REQUEST", "port must be a number 0-65535");
    const data = printableBytes(text);
    this.send({ requesttype: "kitchenPrint", ip: ip.trim(), port: Number(portText), data });
  }

  /**
   * Sends a request to the card terminal and resolves with the next terminal answer not yet
   * taken by an earlier payment. Rejects with "NO_ANSWER" after answerTimeoutMs,
   * "DISCONNECTED" when the connection closes first or is not open, "INVALID_REQUEST" for
   * bytes that are not 0-255 or a requesttype that is not a terminal request.
   * @param {{van: string, bytes: Uint8Array|ArrayBuffer|number[], requesttype?: string}} request
   * @returns {Promise<Answer>}
   */
  async payment({ van, bytes, requesttype = "payment" }) {
    if (typeof van !== "string") throw failure("INVALID_REQUEST", "van must be a string such as \"KIS\"");
    if (typeof requesttype !== "string" || requesttype === "")
      throw failure("INVALID_REQUEST", "requesttype must be a non-empty string");
    // "kitchenPrint" would be a kitchen order without a printer, and "msg" is the service's own
    // control message: the service stops on both.
    if (requesttype === "kitchenPrint" || requesttype === "msg")
      throw failure("INVALID_REQUEST", "requesttype \"" + requesttype + "\" is not a terminal request");
    const data = byteArray(bytes);
    this.send({ requesttype, van, data });
    return new Promise((resolve, reject) => {
      const payment = { resolve, reject, timer: null };
      payment.timer = setTimeout(() => {
        const index = this.waiting.indexOf(payment);
        if (index >= 0) this.waiting.splice(index, 1);
        reject(failure("NO_ANSWER", "the terminal did not answer within " + this.answerTimeoutMs + " ms"));
      }, this.answerTimeoutMs);
      this.waiting.push(payment);
    });
  }

  /**
   * Prints a slip on the card terminal's printer. Resolves once sent. Rejects like
   * kitchenPrint() for text code page 949 lacks and when not connected.
   * @param {{van: string, text: string}} slip
   * @returns {Promise<void>}
   */
  async print({ van, text }) {
    if (typeof van !== "string") throw failure("INVALID_REQUEST", "van must be a string such as \"KIS\"");
    const data = printableBytes(text);
    this.send({ requesttype: "print", van, data });
  }

  /**
   * Whether the browser lets this page reach the service on this computer: "granted",
   * "prompt" (the browser will ask), "denied", "not-needed" (the page is on this computer) or
   * "unsupported" (no such permission here, as in Node or browsers without it).
   * @returns {Promise<"granted"|"prompt"|"denied"|"not-needed"|"unsupported">}
   */
  static async localNetworkAccess() {
    const state = await permissionState();
    if (state === "denied" || state === "granted") return state;
    // A page on this computer reports "prompt" all the same, and is never asked.
    if (pageIsLocal()) return "not-needed";
    return state === "prompt" ? "prompt" : "unsupported";
  }

  /** See notInCp949(). */
  static notInCp949(text) {
    return notInCp949(text);
  }
}

export default TeranoCounter;
