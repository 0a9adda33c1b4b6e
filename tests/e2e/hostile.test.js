// A guest who holds a true seat and tries everything: what is beyond that seat notices nothing of it.

import assert from "node:assert/strict";
import { readdirSync } from "node:fs";
import { join } from "node:path";
import { after, before, test } from "node:test";

import { comeIn, inState, launch, says } from "./support/browser.js";
import { rooms } from "./support/janus.js";
import { arm } from "./support/rogue.js";
import { DEADLINE, Studio } from "./support/studio.js";

const SHOW = "videotestsrc is-live=true ! video/x-raw,width=320,height=180,framerate=15/1 ! identity";
const NO_PIN = 429;
const UNAUTHORIZED = 433;
const NO_SUCH_ROOM = 426;
const NO_SUCH_FEED = 428;

let studio, browser, spy;
let ada, her, herSeat;
const herStreams = [];
let mal; // the page from which all is tried

before(async () => {
  [studio, browser] = await Promise.all([Studio.start("--no-log", "--show", SHOW), launch()]);
  spy = await browser.open(new URL("icon.svg", studio.link).href, { bypassCSP: true });
  ada = await browser.open("about:blank", { name: "Ada" });
  // What nobody else could know, as if it had been told.
  const overhear = ({ payload }) => {
    const { seat, plugindata } = JSON.parse(payload);
    herSeat ??= seat;
    if (plugindata?.data.videoroom === "joined") herStreams.push(plugindata.data.id);
  };
  ada.on("websocket", (socket) => socket.on("framereceived", overhear));
  await ada.goto(studio.link);
  her = await comeIn(ada, studio, "Ada");
  for (const command of [`live ${her}`, "golive", 'pref {"title": "The true show"}']) studio.say(command);
  await inState(ada, "on-air");
  mal = await browser.open(new URL("/", studio.link).href);
  await arm(mal);
});

after(async () => {
  await browser?.close();
  await studio?.close();
});

const invite = () => new URLSearchParams(new URL(studio.link).hash.slice(1)).get("invite");

/** Everything but the rogue's own seat, as others see it. */
async function others(own) {
  return {
    rooms: (await rooms(spy, studio)).filter(({ id }) => id !== own),
    title: await ada.textContent("#title"),
    viewers: await ada.isVisible("#viewers"),
    comments: await ada.locator("#comments .said").count(),
    state: await ada.getAttribute("body", "data-state"),
    own: await ada.textContent("#own"),
  };
}

/** Nobody but the rogue is anything but as before, and nothing was reported of anybody else. */
async function untouched(what, before, from, own) {
  await studio.guest(
    her,
    `she is seen and heard after ${what}`,
    ({ state, fps, rms, muted }) => state === "live" && fps > 3 && rms > -60 && !muted,
  );
  assert.deepEqual(await others(own), before, what);
  const told = studio.reports
    .slice(from)
    .filter(({ event, guest }) => guest === her || guest === 0 || /^session/.test(event));
  assert.deepEqual(told, [], what);
}

/** A seat for the rogue, who rings with a true camera: `window.seat`, `window.lobby`, `window.main`. */
async function takeSeat(name) {
  const from = studio.now;
  const seat = await mal.evaluate(
    async ([invite, name]) => {
      const lobby = (window.lobby = rogue.lobby());
      await lobby.opened;
      lobby.send({ ask: { invite, name } });
      const { seat } = await lobby.next((message) => message.seat);
      window.seat = seat;
      window.outside = await lobby.next((message) => "program" in message);
      window.main = new rogue.Janus(seat.key);
      await main.begin();
      window.camera = await rogue.publish(main, { ...seat, display: `Guest - ${name}` });
      return seat;
    },
    [invite(), name],
  );
  await studio.report("ring", { guest: seat.number }, from);
  // Who only rings is told nothing of the program.
  assert.deepEqual(await mal.evaluate(() => [outside, lobby.heard]), [{ program: null }, []]);
  await studio.admit(seat.number);
  await mal.evaluate(async () => {
    window.program = (await lobby.next(({ program }) => program?.feed)).program;
  });
  return seat;
}

test("the lobby answers nonsense with a refusal or an end, and the way to the session opens for seats only", async () => {
  const [before, from] = [await others(), studio.now];
  const answers = await mal.evaluate(async (invite) => {
    const found = {};
    const asked = async (...messages) => {
      const line = rogue.lobby();
      await line.opened;
      for (const message of messages) line.send(message);
      const answer = await line.next(({ seat, refused }) => seat || refused);
      line.socket.close();
      return answer.refused?.reason ?? answer.seat ?? answer;
    };
    const nobody = "0".repeat(32);
    found.refused = [
      await asked({ ask: { invite: nobody, name: "Mal" } }),
      await asked({ ask: { name: "Mal" } }),
      await asked({ ask: { invite: [invite], name: "Mal" } }),
      await asked({ ask: { invite, name: "\u0001\u202e \n" } }),
      await asked({ return: { key: nobody } }),
      await asked({ return: {} }),
      // What is not understood is passed over.
      await asked(
        { ask: 5 },
        {},
        { seat: {} },
        { state: { hidden: "yes", camera: 7 } },
        { leave: {} },
        { return: { key: "" } },
      ),
    ];
    found.ended = [
      await asked("no JSON"),
      await asked("[]"),
      await asked("7"),
      await asked("[".repeat(4_000)),
      await asked(new Uint8Array(8)),
      await asked({ ask: { invite, name: "M".repeat(5_000) } }),
      await asked(...Array(11).fill({ state: {} })),
    ];
    const seat = await asked({ ask: { invite, name: "Mal" } });
    // The seat is its page's; another page needs the key, and then the first is told.
    const [first, second] = [rogue.lobby(), rogue.lobby()];
    await Promise.all([first.opened, second.opened]);
    first.send({ return: { key: seat.key } });
    await first.next(({ seat }) => seat);
    second.send({ return: { key: seat.key } });
    found.elsewhere = [
      (await first.next(({ refused }) => refused)).refused.reason,
      await first.next(() => false),
    ];
    second.send({ leave: {} });
    await second.next(({ removed }) => removed);
    window.used = seat.key;
    return found;
  }, invite());
  await studio.report("gone", { name: "Mal" }, from);
  answers.ways = await mal.evaluate(async () => {
    const line = rogue.lobby();
    await line.opened;
    line.send({ return: { key: used } });
    const { refused } = await line.next(() => true);
    const ways = [undefined, "", "0".repeat(32), used].map((key) => new rogue.Janus(key).opened);
    return [refused.reason, ...(await Promise.all(ways))];
  });
  assert.deepEqual(answers, {
    refused: ["invitation", "invitation", "invitation", "name", "seat", "seat", "seat"],
    ended: Array(7).fill("closed"),
    elsewhere: ["elsewhere", "closed"],
    ways: ["seat", false, false, false, false],
  });
  await studio.guests("nobody but Ada is there", ({ guests }) => guests.length === 1);
  await untouched("the lobby's refusals", before, from);
});

test("a guest reaches no other's room and manages none, not even their own", async () => {
  const seat = await takeSeat("Mal");
  const [before, from] = [await others(seat.room), studio.now];
  const file = join(studio.folder, "stolen");
  const answers = await mal.evaluate(
    async ([victim, file]) => {
      const found = {};
      const ways = {
        hers: { room: victim.room },
        "hers, own token": { room: victim.room, token: seat.token },
        "hers, program's pin": { room: victim.room, token: seat.token, pin: program.pin },
        "program's": { room: program.room },
        "program's, pin": { room: program.room, pin: program.pin },
        "program's, pin and own token": { room: program.room, pin: program.pin, token: seat.token },
      };
      const janus = new rogue.Janus(seat.key);
      await janus.begin();
      const video = await janus.attach("videoroom");
      const text = await rogue.signals(janus);
      const said = async (body) => (await janus.request(video, body)).error_code;
      found.joined = [];
      for (const way of Object.values(ways)) {
        found.joined.push(await said({ request: "join", ptype: "publisher", display: "ZarvoLive", ...way }));
        const { textroom } = await text.ask({ textroom: "join", username: crypto.randomUUID(), ...way });
        found.joined.push(textroom);
      }

      // Of streams there are only the own room's, and with the pin the program's.
      const listed = await janus.request(video, { request: "listparticipants", room: seat.room });
      found.own = listed.participants
        .filter(({ display }) => display?.startsWith("Guest - "))
        .map(({ display }) => display);
      const feeds = [
        { room: program.room, feed: program.feed },
        { room: seat.room, feed: program.feed },
      ];
      feeds.push({ room: program.room, pin: seat.token, feed: program.feed });
      feeds.push({ room: "1234", feed: program.feed });
      found.subscribed = [];
      for (const each of feeds) found.subscribed.push((await rogue.subscribe(janus, each)).refused);
      found.listed = [
        await janus.request(video, { request: "list" }),
        await text.ask({ textroom: "list" }),
      ].map(({ list }) => list);

      found.managed = {};
      const { id } = camera;
      const requests = {
        create: { room: "mine", permanent: false },
        edit: { new_pin: "" },
        destroy: {},
        kick: { id },
        moderate: { id, mid: "0", mute: true },
        allowed: { action: "disable" },
        enable_recording: { record: true },
        rtp_forward: { publisher_id: id, host: "127.0.0.1", streams: [{ mid: "0", port: 9 }] },
        stop_rtp_forward: { publisher_id: id, stream_id: 1 },
        listforwarders: {},
      };
      for (const [request, more] of Object.entries(requests)) {
        found.managed[request] = [];
        for (const room of [seat.room, program.room, victim.room]) {
          const secret = { secret: seat.token, admin_key: seat.token };
          found.managed[request].push(await said({ request, room, ...secret, ...more }));
          if (
            ["rtp_forward", "stop_rtp_forward", "listforwarders", "enable_recording", "moderate"].includes(
              request,
            )
          )
            continue;
          const { textroom } = await text.ask({ textroom: request, room, ...secret, ...more, username: id });
          found.managed[request].push(textroom);
        }
      }
      // A recording of one's own, and a name for it.
      const record = { record: true, filename: file };
      await main.request(camera.handle, { request: "configure", ...record });
      await rogue.publish(janus, { ...seat, display: "Guest - Mal", ...record });
      await janus.end();
      return found;
    },
    [herSeat, file],
  );
  const { joined, own, subscribed, listed, managed } = answers;
  const each = (count, ...codes) => Array(count).fill(codes).flat();
  assert.deepEqual(joined, [
    ...each(3, UNAUTHORIZED, "error"),
    NO_PIN,
    "error",
    ...each(2, UNAUTHORIZED, "error"),
  ]);
  assert.deepEqual(
    [own, subscribed, listed],
    [["Guest - Mal"], [NO_PIN, NO_SUCH_FEED, UNAUTHORIZED, NO_SUCH_ROOM], [[], []]],
  );
  for (const [request, answered] of Object.entries(managed)) {
    const wanted = answered.length === 3 ? each(3, UNAUTHORIZED) : each(3, UNAUTHORIZED, "error");
    assert.deepEqual(answered, wanted, request);
  }
  await untouched("what was refused", before, from, seat.room);
  // What is asked for beside something else is passed over.
  assert.deepEqual(
    readdirSync(studio.folder).filter((name) => name.startsWith("stolen")),
    [],
  );
});

test("what a guest does in their own seat reaches only their own page", async () => {
  const { room, key, number } = await mal.evaluate(() => seat);
  const [before, from] = [await others(room), studio.now];
  const streams = await mal.evaluate(async (hers) => {
    // A false show, then cameras until there is no more room for any.
    const found = { published: [], refused: [] };
    const lines = (window.lines = [main, new rogue.Janus(seat.key), new rogue.Janus(seat.key)]);
    for (const line of lines.slice(1)) await line.begin();
    for (let count = 0; count < 13; count++) {
      const line = lines[1 + (count % 2)];
      const display = count === 0 ? "ZarvoLive" : `Guest - Mal ${count}`;
      const { id, refused } = await rogue.publish(line, { ...seat, display });
      (id ? found.published : found.refused).push(id ?? refused);
    }
    // The studio's signals, about oneself, about her and to all.
    const text = (window.text = await rogue.signals(main));
    const { textroom } = await text.ask({
      textroom: "join",
      room: seat.room,
      token: seat.token,
      username: camera.id,
    });
    found.joined = textroom;
    const subs = [...hers, camera.id].map((id) => ({ id, on: false, remoteMuted: true, offAirAudio: true }));
    for (const id of [...hers, camera.id])
      for (const type of ["start", "stop"]) text.signal(seat.room, type, id);
    text.signal(
      seat.room,
      "audio_setting",
      JSON.stringify({ subs, broadcastIsLive: false, recordOnly: true }),
    );
    text.signal(seat.room, "viewer_count", JSON.stringify({ viewer_count: "666" }));
    text.signal(seat.room, "prefUpdate", JSON.stringify({ title: "A false show" }));
    text.signal(seat.room, "comment", JSON.stringify({ name: "Eve", text: "False", uuid: "false" }));
    text.signal(seat.room, "mono", "{]");
    text.signal(seat.room, "chat", "no JSON");
    text.signal(seat.room, "chat", JSON.stringify({ name: "Host", text: "I am the host", uuid: "host" }));
    return found;
  }, herStreams);
  assert.equal(streams.joined, "success");
  assert.ok(streams.refused.length > 0, JSON.stringify(streams));
  // Whatever name a line bears, it goes round under the seat's.
  assert.equal((await studio.report("chat", { guest: number }, from)).name, "Mal");
  await ada.waitForSelector("#chat .said");
  assert.match(await ada.textContent("#chat .said:last-child"), /Mal.*I am the host/s);
  await untouched("false streams and signals", before, from, room);
  await studio.guests("one row is one guest", ({ guests }) => guests.length === 2);

  await mal.evaluate(() => {
    for (let line = 1; line <= 3_000; line++) {
      text.signal(
        seat.room,
        "chat",
        JSON.stringify({ name: "Mal", text: `Line ${line}`, uuid: `line-${line}` }),
      );
      text.signal(seat.room, "fav", JSON.stringify({ uuid: `line-${line}`, state: "yes" }));
    }
  });
  const { lines } = await studio.report("talkLeftOut", {}, from);
  assert.ok(lines > 2_000, `${lines} lines are left out`);
  const { uuid } = await studio.ask("chat Host: Calm, please", "chatSent");
  await ada.waitForSelector(`#chat [data-uuid="${uuid}"]`);
  assert.ok((await ada.locator("#chat .said").count()) < 200);
  await untouched("a flood of signals", before, from, room);

  const ends = await mal.evaluate(async () => {
    const found = {};
    await Promise.all(lines.slice(1).map((line) => line.end()));
    // What ends a connection: what comes before there is a session, and what comes in one.
    const outside = {
      "no JSON": (janus) => janus.send("no JSON"),
      "another's session": (janus) => janus.send({ janus: "keepalive", session_id: 1 }),
      "another's session, claimed": (janus) => janus.send({ janus: "claim", session_id: 1 }),
      "the administrator's words": (janus) =>
        janus.send({ janus: "list_sessions", admin_secret: "janusoverlord" }),
      "too long a message": (janus) => janus.send({ janus: "create", more: "M".repeat(70_000) }),
    };
    const inside = {
      "a second session": (janus) => janus.ask("create"),
      "another plugin": (janus) => janus.attach("echotest"),
      "a ninth handle": async (janus) => {
        for (let count = 0; count < 8; count++) await janus.attach("videoroom");
        await janus.attach("videoroom");
      },
    };
    for (const [what, say] of Object.entries({ ...outside, ...inside })) {
      const janus = new rogue.Janus(seat.key);
      await janus.opened;
      if (what in inside) await janus.begin();
      await say(janus);
      found[what] = await janus.next(() => false);
    }
    const more = [1, 2, 3, 4].map(() => new rogue.Janus(seat.key));
    const begun = [];
    for (const janus of more) begun.push(await janus.begin());
    found["a fifth connection"] = begun.join() === "true,true,true,false" ? "closed" : begun.join();
    // A session that nobody took leave of is counted until the server has given it up.
    found["a ninth session"] = "opened";
    for (let count = 0; count < 8 && found["a ninth session"] === "opened"; count++) {
      more[0].socket.close();
      await more[0].next(() => false);
      more[0] = new rogue.Janus(seat.key);
      if (!(await more[0].begin())) found["a ninth session"] = more[0].closed ? "closed" : "refused";
    }
    for (const janus of more) janus.socket.close();
    return found;
  });
  for (const [what, end] of Object.entries(ends)) assert.equal(end, "closed", what);
  await untouched("too much of everything", before, from, room);

  // Who is taken out has nothing left: no way in, and no picture of the program.
  const gone = await mal.evaluate(async () => {
    window.received = await rogue.subscribe(main, program);
    return Boolean(received.connection);
  });
  assert.equal(gone, true);
  // The key is tried from the moment the page is told, while the seat's service still ends.
  const told = mal.evaluate(async () => {
    await lobby.next((message) => message.removed);
    const back = rogue.lobby();
    await back.opened;
    back.send({ return: { key: seat.key } });
    const { refused } = await back.next((message) => message.seat ?? message.refused);
    return [refused?.reason, await new rogue.Janus(seat.key).opened];
  });
  await studio.ask(`remove ${number}`, "gone", { guest: number });
  assert.deepEqual(await told, ["seat", false]);
  const over = await mal.evaluate(async () => {
    await main.next(() => false);
    const bytes = async () => {
      let sum = 0;
      for (const each of (await received.connection.getStats()).values())
        sum += each.type === "inbound-rtp" ? each.bytesReceived : 0;
      return sum;
    };
    await new Promise((done) => setTimeout(done, 1_000)); // by then
    const first = await bytes();
    await new Promise((done) => setTimeout(done, 1_000));
    return [(await bytes()) - first, await new rogue.Janus(seat.key).opened];
  });
  assert.deepEqual(over, [0, false]);
  assert.deepEqual((await rooms(spy, studio)).map(({ id }) => id).includes(room), false);
  await says(ada, "#title", /^The true show$/);
});
