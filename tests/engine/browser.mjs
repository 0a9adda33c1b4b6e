// A headless Chromium that tests drive: each line on standard input is a call of a function of
// browser_page.js, {"call": NAME, "with": ARGUMENT}; each answer is one line, {"result": …} or {"error": …}.
// The calls in `here` are answered in this process instead.
import { once } from "node:events";
import { readFileSync } from "node:fs";
import { createServer } from "node:http";
import { createInterface } from "node:readline";

import { launch } from "../e2e/support/browser.js";
import { Cable } from "../e2e/support/cable.js";

// A page of loopback's may use what a secure page may.
const project = new URL("../../", import.meta.url);
const server = createServer(({ url }, response) => {
  const isModule = url.endsWith(".js");
  response.setHeader("Content-Type", isModule ? "text/javascript" : "text/html");
  response.end(isModule ? readFileSync(new URL(`.${url}`, project)) : "<!doctype html><title>guest</title>");
});
server.listen(0, "127.0.0.1");
await once(server, "listening");

const browser = await launch();
const page = await browser.open(`http://127.0.0.1:${server.address().port}/`);
page.on("console", (message) => console.error("page:", message.text()));

// A road to a server that can be cut, mended, and closed for good.
let cable;
const here = {
  openRoad: async ({ to }) => (cable = await Cable.to(to)).link,
  cutRoad: () => cable.cut(),
  mendRoad: () => cable.mend(),
  closeRoad: () => cable.close(),
};

const inPage = async ([name, argument]) => (await import("/tests/engine/browser_page.js"))[name](argument);
const answer = (line) => process.stdout.write(JSON.stringify(line) + "\n");
answer({ result: "ready" });
for await (const line of createInterface({ input: process.stdin })) {
  const { call, with: argument } = JSON.parse(line);
  try {
    const result = here[call] ? await here[call](argument) : await page.evaluate(inPage, [call, argument]);
    answer({ result: result ?? null });
  } catch (error) {
    answer({ error: error.message });
  }
}
await browser.close();
process.exit();
