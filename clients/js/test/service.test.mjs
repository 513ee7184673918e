// The client against the real service and its device simulator. The service listens on fixed
// ports, so these tests run one after the other, each with a service of its own.

import assert from "node:assert/strict";
import { afterEach, test } from "node:test";

import { TeranoCounter } from "../teranocounter.js";
import { Service, devsim, iconvCp949, nextEvent, printedBytes, rejection, serviceUrl, waitUntil } from "./support.mjs";

const kisTerminal = { MAIN_INTERFACE: "TCP", TCP_DEVICE: "KIS", TCP_IP: "127.0.0.1" };

let cleanups = [];
function track(thing) {
  cleanups.push(thing);
  return thing;
}
afterEach(async () => {
  for (const thing of cleanups.reverse()) {
    if (thing instanceof TeranoCounter) thing.close();
    else if (thing instanceof Service) await thing.dispose();
    else await thing.stop("SIGKILL");
  }
  cleanups = [];
});

test("connect() rejects with SERVICE_NOT_RUNNING when nothing listens", async () => {
  const client = track(new TeranoCounter());
  const error = await rejection(client.connect());
  assert.equal(error.code, "SERVICE_NOT_RUNNING");
  assert.equal(client.connected, false);
  assert.equal(await TeranoCounter.localNetworkAccess(), "unsupported");
});

test("connect() resolves once the service takes the connection, and fires open", async () => {
  track(await new Service().start());
  const client = track(new TeranoCounter());
  const opened = nextEvent(client, "open");
  await client.connect();
  await opened;
  assert.equal(client.connected, true);
});

test("a kitchen order arrives on the printer in code page 949", async () => {
  const service = track(await new Service().start());
  const printer = track(await devsim("printer", "--port", "9150"));
  const client = track(new TeranoCounter());
  await client.connect();

  // 똠 and 햏 are only in code page 949's extension, 韓 is a hanja, ① and € symbols.
  const text = "\x1b@주문: 김치찌개 2 똠양꿍 1 햏 韓 ① €\n\x1dV\x00";
  await client.kitchenPrint({ ip: "127.0.0.1", port: 9150, text });
  const job = await printer.line(/printer job from/, "the printer job");
  assert.deepEqual(printedBytes(job), iconvCp949(text));
  assert.ok(service.alive);
});

test("text code page 949 lacks is refused and never sent; the service goes on", async () => {
  const service = track(await new Service().start());
  const printer = track(await devsim("printer", "--port", "9150"));
  const client = track(new TeranoCounter());
  await client.connect();

  for (const text of ["커피 ☕", "Cà phê sữa đá ắ", "no\u00a0break", "lone \ud83d half", "😀"]) {
    const error = await rejection(client.kitchenPrint({ ip: "127.0.0.1", port: 9150, text }));
    assert.equal(error.code, "NOT_CP949", text);
    assert.ok(error.characters.length > 0);
  }
  const slip = await rejection(client.print({ van: "KIS", text: "영수증 🧾" }));
  assert.equal(slip.code, "NOT_CP949");
  assert.deepEqual(slip.characters, ["🧾"]);

  // Had any of them been sent, the service would have stopped on it. The next order is the
  // printer's first job.
  await client.kitchenPrint({ ip: "127.0.0.1", port: "9150", text: "ㆍ아메리카노 1\n" });
  const job = await printer.line(/printer job from/, "the printer job");
  assert.deepEqual(printedBytes(job), iconvCp949("ㆍ아메리카노 1\n"));
  assert.equal(printer.lines.filter((l) => /printer job from/.test(l)).length, 1);
  assert.ok(service.alive);
  assert.equal(client.connected, true);
});

test("requests the service would stop on are refused before they are sent", async () => {
  const service = track(await new Service().start());
  const printer = track(await devsim("printer", "--port", "9150"));
  const client = track(new TeranoCounter());
  await client.connect();
  const refused = [
    client.kitchenPrint({ ip: "", port: 9100, text: "a" }),
    client.kitchenPrint({ ip: "127.0.0.1", port: "9100.0", text: "a" }),
    client.kitchenPrint({ ip: "127.0.0.1", port: 70000, text: "a" }),
    client.payment({ van: "KIS", bytes: [2, 256, 3] }),
    client.payment({ van: "KIS", bytes: [2, -1, 3] }),
    client.payment({ van: "KIS", bytes: "ABC" }),
    client.payment({ van: "KIS", bytes: [1], requesttype: "kitchenPrint" }),
    client.payment({ van: "KIS", bytes: [1], requesttype: "msg" }),
  ];
  for (const request of refused) assert.equal((await rejection(request)).code, "INVALID_REQUEST");
  // Any of them reaching the service would have ended it (no MAIN_INTERFACE is set, so even a
  // well-formed payment would). Frames are handled in order: an order sent after them prints.
  await client.kitchenPrint({ ip: "127.0.0.1", port: 9150, text: "확인\n" });
  await printer.line(/printer job from/, "the printer job");
  assert.ok(service.alive);
  assert.equal(client.connected, true);
});

test("payment() resolves with the terminal's answer, and an answer event fires", async () => {
  track(await new Service(kisTerminal).start());
  const terminal = track(await devsim("terminal", "kis", "--answer", "승인 12345", "--delay", "200"));
  const client = track(new TeranoCounter());
  await client.connect();
  const event = nextEvent(client, "answer");

  const answer = await client.payment({ van: "KIS", bytes: new Uint8Array([2, 0x50, 0x41, 0x59, 3]) });
  assert.deepEqual(answer, { data: "승인 12345", devicetype: "CAT", devicename: "KIS7430" });
  assert.deepEqual((await event).detail, answer);
  assert.ok(terminal.lines.some((l) => /kis recv .* 5 bytes \| 02 50 41 59 03 /.test(l)));
});

test("two payments take the answers in the order they were sent", async () => {
  track(await new Service({ ...kisTerminal }).start());
  track(await devsim("terminal", "kis", "--answer", "KIS first", "--delay", "100"));
  const smartro = track(await devsim("terminal", "smartro", "--answer", "SMARTRO second", "--delay", "1500"));
  const client = track(new TeranoCounter());
  await client.connect();
  const answers = [];
  client.addEventListener("answer", (event) => answers.push(event.detail.data));

  const first = client.payment({ van: "KIS", bytes: [2, 0x31, 3] });
  await waitUntil(() => answers.length === 1, "the KIS answer");
  const second = client.payment({ van: "SMARTRO", bytes: [2, 0x32, 3] });
  const third = client.payment({ van: "kis", bytes: [2, 0x33, 3] });

  // The SMARTRO answer comes last, yet the older waiting payment takes the next answer.
  assert.equal((await first).data, "KIS first");
  assert.equal((await second).data, "KIS first");
  assert.equal((await third).data, "\x10SMARTRO second");
  assert.equal((await third).devicename, "SMT-T263");
  assert.ok(smartro.lines.some((l) => /smartro send/.test(l)));
});

test("payment() rejects with NO_ANSWER after answerTimeoutMs; the late answer is still an event", async () => {
  track(await new Service(kisTerminal).start());
  track(await devsim("terminal", "kis", "--answer", "늦은 승인", "--delay", "2000"));
  const client = track(new TeranoCounter({ answerTimeoutMs: 300 }));
  await client.connect();
  const late = nextEvent(client, "answer");

  const started = Date.now();
  const error = await rejection(client.payment({ van: "KIS", bytes: [2, 0x41, 3] }));
  assert.equal(error.code, "NO_ANSWER");
  assert.ok(Date.now() - started < 1500, "rejected long before the terminal answered");
  assert.equal((await late).detail.data, "늦은 승인");
});

test("payment() rejects with DISCONNECTED when the service goes away first", async () => {
  const service = track(await new Service(kisTerminal).start());
  const terminal = track(await devsim("terminal", "kis", "--delay", "30000"));
  const client = track(new TeranoCounter());
  await client.connect();
  const closed = nextEvent(client, "close");

  const payment = rejection(client.payment({ van: "KIS", bytes: [2, 0x41, 3] }));
  await terminal.line(/kis recv/, "the request at the terminal");
  await service.stop("SIGKILL");
  assert.equal((await payment).code, "DISCONNECTED");
  assert.equal((await closed).detail.code, 1006);
  assert.equal(client.connected, false);
  assert.equal((await rejection(client.payment({ van: "KIS", bytes: [1] }))).code, "DISCONNECTED");
});

test("an answer held while no POS was connected reaches the next client as an answer event", async () => {
  const service = track(await new Service({ ...kisTerminal, HOLD_UNDELIVERED_ANSWERS: "true" }).start());
  const terminal = track(await devsim("terminal", "kis", "--answer", "승인 보관", "--delay", "800"));
  const first = track(new TeranoCounter());
  await first.connect();

  const payment = rejection(first.payment({ van: "KIS", bytes: [2, 0x41, 3] }));
  await terminal.line(/kis recv/, "the request at the terminal");
  first.close(); // the page is reloaded while the customer is at the terminal
  assert.equal((await payment).code, "DISCONNECTED");
  await terminal.line(/kis send .* \| 02 30 30 /, "the terminal's result");

  const second = track(new TeranoCounter());
  const held = nextEvent(second, "answer");
  await second.connect();
  assert.deepEqual((await held).detail, { data: "승인 보관", devicetype: "CAT", devicename: "KIS7430" });
  assert.ok(service.alive);
});

test("with reconnect on, the client connects again with back-off once the service is back", async () => {
  let service = track(await new Service().start());
  const attempts = [];
  class CountingWebSocket extends WebSocket {
    constructor(url) {
      super(url);
      attempts.push(Date.now());
    }
  }
  const client = track(new TeranoCounter({ reconnect: { minDelayMs: 50, maxDelayMs: 400 }, WebSocket: CountingWebSocket }));
  await client.connect();
  const closed = nextEvent(client, "close");
  await service.stop("SIGKILL");
  await closed;

  await waitUntil(() => attempts.length >= 6, "six attempts while the service is away");
  // The first retry comes 50 ms after the close; then each wait doubles up to 400 ms.
  const gaps = attempts.slice(2, 6).map((t, i) => t - attempts[i + 1]);
  [100, 200, 400, 400].forEach((expected, i) =>
    assert.ok(gaps[i] >= expected - 5 && gaps[i] < expected + 250, "waits between attempts: " + gaps),
  );

  const reopened = nextEvent(client, "open", 15_000);
  service = track(await new Service().start());
  await reopened;
  assert.equal(client.connected, true);
});

test("connect() with reconnect rejects at once when nothing listens, then keeps trying", async () => {
  const client = track(new TeranoCounter({ url: serviceUrl, reconnect: { minDelayMs: 50, maxDelayMs: 200 } }));
  assert.equal((await rejection(client.connect())).code, "SERVICE_NOT_RUNNING");
  const opened = nextEvent(client, "open", 15_000);
  track(await new Service().start());
  await opened;
  assert.equal(client.connected, true);
});
