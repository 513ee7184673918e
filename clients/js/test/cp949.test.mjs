// The client's idea of what code page 949 can encode must be the service's: the service
// encodes with the system's iconv "CP949", and stops on a kitchen order it cannot encode.

import assert from "node:assert/strict";
import { spawnSync } from "node:child_process";
import { test } from "node:test";

import { notInCp949 } from "../teranocounter.js";

/** The characters among `chars` that iconv encodes in CP949, one call for all of them. */
function iconvEncodable(chars) {
  const input = Buffer.from(chars.join("\n") + "\n", "utf8");
  const encoded = spawnSync("iconv", ["-c", "-f", "UTF-8", "-t", "CP949"], { input, maxBuffer: 1 << 26 });
  const decoded = spawnSync("iconv", ["-f", "CP949", "-t", "UTF-8"], { input: encoded.stdout, maxBuffer: 1 << 26 });
  assert.equal(decoded.status, 0, "iconv CP949 works on this machine");
  const lines = decoded.stdout.toString("utf8").split("\n");
  lines.pop();
  assert.equal(lines.length, chars.length);
  // -c drops what it cannot encode, leaving an empty line; what it encodes comes back unchanged.
  return new Set(chars.filter((c, i) => lines[i] !== "" && (assert.equal(lines[i], c), true)));
}

test("every character of the Basic Multilingual Plane is judged as iconv judges it", () => {
  const chars = [];
  for (let cp = 0x80; cp <= 0xffff; cp++) if (cp < 0xd800 || cp > 0xdfff) chars.push(String.fromCodePoint(cp));
  const iconv = iconvEncodable(chars);
  const client = new Set(chars.filter((c) => notInCp949(c).length === 0));
  const onlyClient = [...client].filter((c) => !iconv.has(c));
  const onlyIconv = [...iconv].filter((c) => !client.has(c));
  assert.deepEqual(onlyClient, [], "the client would send what the service cannot encode");
  assert.deepEqual(onlyIconv, [], "the client refuses what the service can encode");
  assert.equal(iconv.size, 17048);
});

test("named characters: Hangul, hanja and symbols pass; emoji and foreign letters do not", () => {
  const hangul = [];
  for (let cp = 0xac00; cp <= 0xd7a3; cp++) hangul.push(String.fromCodePoint(cp));
  assert.equal(hangul.length, 11172);
  assert.deepEqual(notInCp949(hangul.join("")), []);
  for (const ok of ["韓國", "漢字", "ㆍ", "ㄱㅏ", "①②", "€", "®", "×÷", "ΑΩαω", "АЯая", "あア", "※☆★", "\x00\x1b\x7f~"])
    assert.deepEqual(notInCp949(ok), [], ok);
  assert.deepEqual(notInCp949("커피 ☕ 😀 ☕"), ["☕", "😀"]);
  assert.deepEqual(notInCp949("Cà phê ắ"), ["à", "ê", "ắ"]);
  assert.deepEqual(notInCp949("a\u00a0b"), ["\u00a0"]);
  assert.deepEqual(notInCp949("\ud83d"), ["\ud83d"]);
  assert.deepEqual(notInCp949("\ue000"), ["\ue000"]);
  assert.deepEqual(notInCp949("\ufffd"), ["\ufffd"]);
  for (const c of ["☕", "😀", "ắ", "\u00a0", "\ue000", "\ufffd", "\u1100"]) assert.equal(iconvEncodable([c]).size, 0, c);
});

test("characters beyond the Basic Multilingual Plane are refused, as iconv refuses them", () => {
  const sample = ["😀", "🍜", "𠀀", "𝐀", "\u{10ffff}"];
  assert.equal(iconvEncodable(sample).size, 0);
  for (const c of sample) assert.deepEqual(notInCp949(c), [c]);
});
