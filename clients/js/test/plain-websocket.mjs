// A small WebSocket client (RFC 6455, text frames, client side) for Node releases without one
// of their own, such as Debian 12's Node 18. It behaves as a browser's does where the client
// looks: "open", "message" with text, "error" then "close" with 1006 when the connection fails
// or drops, "close" with the peer's code when the peer closes.

import { randomBytes } from "node:crypto";
import { connect } from "node:net";

export class PlainWebSocket extends EventTarget {
  static CONNECTING = 0;
  static OPEN = 1;
  static CLOSING = 2;
  static CLOSED = 3;

  constructor(url) {
    super();
    const target = new URL(url);
    if (target.protocol !== "ws:") throw new SyntaxError("only ws: URLs: " + url);
    this.url = url;
    this.readyState = 0;
    this.closeCode = 1006;
    this.buffer = Buffer.alloc(0);
    const key = randomBytes(16).toString("base64");
    this.socket = connect(Number(target.port || 80), target.hostname.replace(/^\[|\]$/g, ""), () =>
      this.socket.write(
        `GET ${target.pathname}${target.search} HTTP/1.1\r\nHost: ${target.host}\r\nUpgrade: websocket\r\n` +
          `Connection: Upgrade\r\nSec-WebSocket-Key: ${key}\r\nSec-WebSocket-Version: 13\r\n\r\n`,
      ),
    );
    this.socket.on("data", (chunk) => this.receive(chunk));
    this.socket.on("error", () => {});
    this.socket.on("close", () => this.finish());
  }

  receive(chunk) {
    this.buffer = Buffer.concat([this.buffer, chunk]);
    if (this.readyState === 0) {
      const end = this.buffer.indexOf("\r\n\r\n");
      if (end < 0) return;
      const head = this.buffer.subarray(0, end).toString("latin1");
      this.buffer = this.buffer.subarray(end + 4);
      if (!/^HTTP\/1\.1 101 /.test(head)) return this.socket.destroy();
      this.readyState = 1;
      this.dispatchEvent(new Event("open"));
    }
    while (this.buffer.length >= 2) {
      const opcode = this.buffer[0] & 0x0f;
      let length = this.buffer[1] & 0x7f;
      let offset = 2;
      if (length === 126) {
        if (this.buffer.length < 4) return;
        length = this.buffer.readUInt16BE(2);
        offset = 4;
      } else if (length === 127) {
        if (this.buffer.length < 10) return;
        length = Number(this.buffer.readBigUInt64BE(2));
        offset = 10;
      }
      if (this.buffer.length < offset + length) return;
      const payload = this.buffer.subarray(offset, offset + length);
      this.buffer = this.buffer.subarray(offset + length);
      if (opcode === 1) this.dispatchEvent(Object.assign(new Event("message"), { data: payload.toString("utf8") }));
      else if (opcode === 8) {
        this.closeCode = payload.length >= 2 ? payload.readUInt16BE(0) : 1005;
        if (this.readyState === 1) this.write(8, payload.subarray(0, 2));
        this.readyState = 2;
        this.socket.end();
      } else if (opcode === 9) this.write(10, payload);
    }
  }

  write(opcode, payload) {
    const mask = randomBytes(4);
    const length = payload.length;
    const head = length < 126 ? Buffer.from([0x80 | opcode, 0x80 | length]) : Buffer.alloc(length < 65536 ? 4 : 10);
    if (length >= 126 && length < 65536) {
      head[0] = 0x80 | opcode;
      head[1] = 0x80 | 126;
      head.writeUInt16BE(length, 2);
    } else if (length >= 65536) {
      head[0] = 0x80 | opcode;
      head[1] = 0x80 | 127;
      head.writeBigUInt64BE(BigInt(length), 2);
    }
    const masked = Buffer.from(payload);
    for (let i = 0; i < masked.length; i++) masked[i] ^= mask[i % 4];
    this.socket.write(Buffer.concat([head, mask, masked]));
  }

  send(text) {
    if (this.readyState !== 1) throw new Error("the WebSocket is not open");
    this.write(1, Buffer.from(String(text), "utf8"));
  }

  close(code = 1000) {
    if (this.readyState === 1) {
      const payload = Buffer.alloc(2);
      payload.writeUInt16BE(code);
      this.write(8, payload);
      this.readyState = 2;
      this.closeCode = code;
      this.socket.end();
    } else if (this.readyState === 0) this.socket.destroy();
  }

  finish() {
    if (this.readyState === 3) return;
    const failed = this.closeCode === 1006;
    this.readyState = 3;
    if (failed) this.dispatchEvent(new Event("error"));
    this.dispatchEvent(Object.assign(new Event("close"), { code: this.closeCode, reason: "" }));
  }
}
