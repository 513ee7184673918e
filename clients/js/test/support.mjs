// Starts the real service and the device simulator for the client's tests, and waits for
// what they print, always with a deadline.

import { spawn, spawnSync } from "node:child_process";
import { mkdtempSync, rmSync } from "node:fs";
import { tmpdir } from "node:os";
import path from "node:path";
import { fileURLToPath } from "node:url";

import { PlainWebSocket } from "./plain-websocket.mjs";

// Debian 12's Node 18 has no WebSocket client: the module then uses the test's own, as a page
// would use its browser's.
if (typeof globalThis.WebSocket !== "function") globalThis.WebSocket = PlainWebSocket;

export const binDir =
  process.env.TERANOCOUNTER_BIN_DIR ?? fileURLToPath(new URL("../../../build/bin/", import.meta.url));

export const serviceUrl = "ws://127.0.0.1:49999/";

/** Resolves when `condition()` is true, rejects with `what` once `ms` have passed. */
export function waitUntil(condition, what, ms = 10_000) {
  return new Promise((resolve, reject) => {
    const deadline = Date.now() + ms;
    const check = () => {
      const value = condition();
      if (value) return resolve(value);
      if (Date.now() > deadline) return reject(new Error("timed out waiting for " + what));
      setTimeout(check, 20);
    };
    check();
  });
}

/** Resolves with the first event of `type` on `target`, rejects after `ms`. */
export function nextEvent(target, type, ms = 10_000) {
  return new Promise((resolve, reject) => {
    const timer = setTimeout(() => reject(new Error("no \"" + type + "\" event within " + ms + " ms")), ms);
    target.addEventListener(
      type,
      (event) => {
        clearTimeout(timer);
        resolve(event);
      },
      { once: true },
    );
  });
}

/** Resolves with the error `promise` rejects with; fails when it resolves. */
export async function rejection(promise) {
  try {
    await promise;
  } catch (error) {
    return error;
  }
  throw new Error("expected a rejection, but it resolved");
}

/** A child process whose standard output is kept as lines. */
class Child {
  constructor(file, args, env) {
    this.lines = [];
    this.stderr = "";
    this.exited = null;
    this.process = spawn(file, args, { env, stdio: ["ignore", "pipe", "pipe"] });
    let partial = "";
    this.process.stdout.setEncoding("utf8");
    this.process.stdout.on("data", (chunk) => {
      const parts = (partial + chunk).split("\n");
      partial = parts.pop();
      this.lines.push(...parts);
    });
    this.process.stderr.setEncoding("utf8");
    this.process.stderr.on("data", (chunk) => (this.stderr += chunk));
    this.exitPromise = new Promise((resolve) =>
      this.process.on("exit", (code, signal) => resolve((this.exited = { code, signal }))),
    );
  }

  /** The first line from index `from` on that matches `pattern`. */
  line(pattern, what, ms = 10_000, from = 0) {
    return waitUntil(() => this.lines.slice(from).find((l) => pattern.test(l)), what, ms);
  }

  async stop(signal = "SIGTERM") {
    if (!this.exited) this.process.kill(signal);
    return this.exitPromise;
  }
}

/** The service with a settings file of its own, in a temporary home. */
export class Service {
  constructor(settings = {}) {
    this.home = mkdtempSync(path.join(tmpdir(), "teranocounter-js-"));
    this.env = { ...process.env, HOME: this.home, XDG_CONFIG_HOME: path.join(this.home, "config"), XDG_STATE_HOME: path.join(this.home, "state") };
    delete this.env.DISPLAY;
    delete this.env.WAYLAND_DISPLAY;
    delete this.env.QT_QPA_PLATFORM;
    const args = Object.entries(settings).flatMap(([key, value]) => ["--set", key + "=" + value]);
    if (args.length) {
      const result = spawnSync(path.join(binDir, "teranocounter"), args, { env: this.env, encoding: "utf8" });
      if (result.status !== 0) throw new Error("teranocounter --set failed: " + result.stderr + result.error);
    }
    this.child = null;
  }

  /** Starts the service and resolves once its WebSocket takes connections. */
  async start() {
    this.child = new Child(path.join(binDir, "teranocounter"), ["--headless"], this.env);
    const deadline = Date.now() + 15_000;
    for (;;) {
      if (this.child.exited) throw new Error("the service exited at start: " + this.child.stderr);
      if (await opens(serviceUrl)) return this;
      if (Date.now() > deadline) throw new Error("the service did not take connections within 15 s");
      await new Promise((resolve) => setTimeout(resolve, 50));
    }
  }

  get alive() {
    return this.child !== null && this.child.exited === null;
  }

  stop(signal) {
    return this.child ? this.child.stop(signal) : Promise.resolve();
  }

  async dispose() {
    await this.stop("SIGKILL");
    rmSync(this.home, { recursive: true, force: true });
  }
}

/** Whether a WebSocket to `url` opens (it is closed again at once). */
function opens(url) {
  return new Promise((resolve) => {
    const socket = new WebSocket(url);
    socket.addEventListener("open", () => {
      socket.close();
      resolve(true);
    });
    // Node 20's WebSocket fires only "error" for a refused connection.
    socket.addEventListener("error", () => resolve(false));
    socket.addEventListener("close", () => resolve(false));
  });
}

/** `teranocounter-devsim` with the given arguments, once it says it listens. */
export async function devsim(...args) {
  const child = new Child(path.join(binDir, "teranocounter-devsim"), args, process.env);
  await child.line(/listening on/, "devsim to listen");
  return child;
}

/** The bytes of the last job line of a simulated printer ("... N bytes | hex | text"). */
export function printedBytes(line) {
  const hex = line.split(" | ")[1];
  return Buffer.from(hex.replace(/ /g, ""), "hex");
}

/** `text` in code page 949 as the system's iconv writes it, or null when it cannot. */
export function iconvCp949(text) {
  const result = spawnSync("iconv", ["-f", "UTF-8", "-t", "CP949"], { input: Buffer.from(text, "utf8") });
  return result.status === 0 ? result.stdout : null;
}
