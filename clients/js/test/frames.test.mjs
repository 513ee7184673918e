// What the client puts on the wire, read by a bare WebSocket server of the test's own, and how
// it tells a blocked page from a service that is not running.

import assert from "node:assert/strict";
import { createHash } from "node:crypto";
import { createServer } from "node:net";
import { after, before, test } from "node:test";

import { TeranoCounter } from "../teranocounter.js";
import { rejection, waitUntil } from "./support.mjs";

// A server that upgrades every connection and keeps each client frame as it arrived:
// its opcode and its unmasked payload bytes.
const frames = [];
let server;
let url;

function serve(socket) {
  let buffer = Buffer.alloc(0);
  let upgraded = false;
  socket.on("data", (chunk) => {
    buffer = Buffer.concat([buffer, chunk]);
    if (!upgraded) {
      const end = buffer.indexOf("\r\n\r\n");
      if (end < 0) return;
      const key = /sec-websocket-key: *(\S+)/i.exec(buffer.subarray(0, end).toString("latin1"))[1];
      const accept = createHash("sha1").update(key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11").digest("base64");
      socket.write(
        "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n" +
          "Sec-WebSocket-Accept: " + accept + "\r\n\r\n",
      );
      buffer = buffer.subarray(end + 4);
      upgraded = true;
    }
    for (;;) {
      if (buffer.length < 2) return;
      const opcode = buffer[0] & 0x0f;
      let length = buffer[1] & 0x7f;
      let offset = 2;
      if (length === 126) {
        if (buffer.length < 4) return;
        length = buffer.readUInt16BE(2);
        offset = 4;
      } else if (length === 127) {
        if (buffer.length < 10) return;
        length = Number(buffer.readBigUInt64BE(2));
        offset = 10;
      }
      if (buffer.length < offset + 4 + length) return;
      const mask = buffer.subarray(offset, offset + 4);
      const payload = Buffer.from(buffer.subarray(offset + 4, offset + 4 + length));
      for (let i = 0; i < payload.length; i++) payload[i] ^= mask[i % 4];
      buffer = buffer.subarray(offset + 4 + length);
      if (opcode === 8) socket.end();
      else frames.push({ opcode, payload });
    }
  });
  socket.on("error", () => {});
}

before(async () => {
  server = createServer(serve);
  await new Promise((resolve) => server.listen(0, "127.0.0.1", resolve));
  url = "ws://127.0.0.1:" + server.address().port + "/";
});
after(() => server.close());

test("every frame is one ASCII text frame whose JSON carries the caller's text exactly", async () => {
  const client = new TeranoCounter({ url });
  await client.connect();
  frames.length = 0;

  const text = "주문: 김치찌개 2 똠 韓 ① €\n";
  await client.kitchenPrint({ ip: "주방.local", port: "9100", text });
  client.payment({ van: "카드", bytes: [2, 0xff, 0, 3], requesttype: "결제 🙂" }).catch(() => {});
  await client.print({ van: "KIS\u007f\u0000\"\\", text: "영수증\n" });
  // An unpaired surrogate would stop the service even as an escape: it goes as U+FFFD.
  client.payment({ van: "KIS\ud800", bytes: new ArrayBuffer(2) }).catch(() => {});
  await waitUntil(() => frames.length === 4, "four frames at the server");
  client.close();

  for (const frame of frames) {
    assert.equal(frame.opcode, 1, "a text frame");
    assert.ok(frame.payload.every((byte) => byte < 0x80), "ASCII only: " + frame.payload.toString("latin1"));
  }
  const [kitchen, payment, print, lone] = frames.map((frame) => JSON.parse(frame.payload.toString("ascii")));
  assert.deepEqual(kitchen, {
    requesttype: "kitchenPrint",
    ip: "주방.local",
    port: 9100,
    data: [...Buffer.from(text, "utf8")],
  });
  assert.deepEqual(payment, { requesttype: "결제 🙂", van: "카드", data: [2, 255, 0, 3] });
  assert.deepEqual(print, { requesttype: "print", van: "KIS\u007f\u0000\"\\", data: [...Buffer.from("영수증\n")] });
  assert.deepEqual(lone, { requesttype: "payment", van: "KIS\ufffd", data: [0, 0] });
  assert.match(frames[1].payload.toString("ascii"), /\\ud83d\\ude42/);
});

test("nothing is sent for a refused request", async () => {
  const client = new TeranoCounter({ url });
  await client.connect();
  frames.length = 0;
  assert.equal((await rejection(client.kitchenPrint({ ip: "10.0.0.5", port: 9100, text: "🍜" }))).code, "NOT_CP949");
  assert.equal((await rejection(client.payment({ van: "KIS", bytes: [1.5] }))).code, "INVALID_REQUEST");
  await client.print({ van: "KIS", text: "end" });
  await waitUntil(() => frames.length === 1, "the print frame");
  assert.equal(JSON.parse(frames[0].payload.toString()).requesttype, "print");
  client.close();
});

// --- Local Network Access ------------------------------------------------------------------

/** Runs `body` with a browser's navigator.permissions and location faked. */
async function asPage({ href, states }, body) {
  const saved = {};
  for (const name of ["navigator", "location"]) saved[name] = Object.getOwnPropertyDescriptor(globalThis, name);
  const permissions = {
    async query({ name }) {
      if (!(name in states)) throw new TypeError("The provided value '" + name + "' is not a valid enum value");
      return { state: states[name] };
    },
  };
  Object.defineProperty(globalThis, "navigator", { value: { permissions }, configurable: true });
  Object.defineProperty(globalThis, "location", { value: new URL(href), configurable: true });
  try {
    await body();
  } finally {
    for (const [name, descriptor] of Object.entries(saved))
      if (descriptor) Object.defineProperty(globalThis, name, descriptor);
      else delete globalThis[name];
  }
}

// What a browser's WebSocket does both when the service is not running and when Local Network
// Access blocks the page: "error", then "close" with 1006, never "open". (Node's own WebSocket
// cannot be used with a faked location.)
class RefusedWebSocket extends EventTarget {
  constructor(url) {
    super();
    this.url = url;
    this.readyState = 0;
    setTimeout(() => {
      this.readyState = 3;
      this.dispatchEvent(new Event("error"));
      this.dispatchEvent(Object.assign(new Event("close"), { code: 1006, reason: "" }));
    }, 0);
  }
  send() {
    throw new Error("not open");
  }
  close() {}
}

const pages = [
  // [page, permission states, localNetworkAccess(), connect() error code]
  ["https://pos.example.com/", { "loopback-network": "denied" }, "denied", "LOCAL_NETWORK_ACCESS_BLOCKED"],
  ["http://127.0.0.1:8443/", { "loopback-network": "denied" }, "denied", "LOCAL_NETWORK_ACCESS_BLOCKED"],
  ["https://pos.example.com/", { "loopback-network": "prompt" }, "prompt", "LOCAL_NETWORK_ACCESS_BLOCKED"],
  ["https://pos.example.com/", { "local-network-access": "prompt" }, "prompt", "LOCAL_NETWORK_ACCESS_BLOCKED"],
  ["https://pos.example.com/", { "local-network-access": "granted" }, "granted", "SERVICE_NOT_RUNNING"],
  ["https://127.0.0.1:8443/", { "loopback-network": "prompt" }, "not-needed", "SERVICE_NOT_RUNNING"],
  ["http://localhost:8080/", { "loopback-network": "prompt" }, "not-needed", "SERVICE_NOT_RUNNING"],
  ["http://pos.localhost/", { "loopback-network": "prompt" }, "not-needed", "SERVICE_NOT_RUNNING"],
  ["http://[::1]:8080/", { "loopback-network": "prompt" }, "not-needed", "SERVICE_NOT_RUNNING"],
  ["file:///home/pos/pos.html", {}, "not-needed", "SERVICE_NOT_RUNNING"],
  ["https://pos.example.com/", {}, "unsupported", "SERVICE_NOT_RUNNING"],
  ["https://127.1.2.3.example.com/", { "loopback-network": "prompt" }, "prompt", "LOCAL_NETWORK_ACCESS_BLOCKED"],
];

for (const [href, states, access, code] of pages) {
  test(`a page at ${href} with ${JSON.stringify(states)}: ${access}, ${code}`, async () => {
    await asPage({ href, states }, async () => {
      assert.equal(await TeranoCounter.localNetworkAccess(), access);
      const error = await rejection(new TeranoCounter({ WebSocket: RefusedWebSocket }).connect());
      assert.ok(error instanceof Error);
      assert.equal(error.code, code);
    });
  });
}
