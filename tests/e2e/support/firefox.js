// Firefox with its own fake camera and microphone.

import { mkdtempSync, rmSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import puppeteer from "puppeteer-core";

import { DEADLINE } from "./studio.js";

/** A browser for guests whose microphone hears that tone; `close` ends it and takes its files away. */
export async function launchFirefox({ hertz }) {
  const folder = mkdtempSync(join(tmpdir(), "guests-"));
  const browser = await puppeteer.launch({
    browser: "firefox",
    executablePath: "/usr/bin/firefox-esr",
    userDataDir: folder,
    protocolTimeout: DEADLINE,
    extraPrefsFirefox: {
      "media.navigator.streams.fake": true,
      "media.navigator.permission.disabled": true,
      "media.navigator.audio.fake_frequency": hertz,
      "media.autoplay.default": 0,
      "media.autoplay.blocking_policy": 0,
      "media.peerconnection.ice.obfuscate_host_addresses": false,
    },
  });

  return {
    /** Opens the link for a guest of that name. */
    async open(link, { name }) {
      const page = await browser.newPage();
      page.setDefaultTimeout(DEADLINE);
      const stored = JSON.stringify({ name, original: true });
      await page.evaluateOnNewDocument((text) => localStorage.setItem("guest", text), stored);
      await page.goto(link);
      return page;
    },

    async close() {
      await browser.close();
      rmSync(folder, { recursive: true, force: true });
    },
  };
}
