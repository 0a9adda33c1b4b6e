// A guest of another making: bare WebSockets to the lobby and to the session server, from inside a page.

/** Gives the page, which has the studio's origin, `window.rogue`. */
export const arm = (page) =>
  page.evaluate(() => {
    const PATIENCE = 30_000;
    const soon = (what, promise) =>
      Promise.race([
        promise,
        new Promise((_, reject) => setTimeout(() => reject(new Error(`never: ${what}`)), PATIENCE)),
      ]);

    /** A WebSocket and what has come over it. */
    class Line {
      heard = [];
      closed = false;
      #look = new Set();

      constructor(path, protocols) {
        this.socket = new WebSocket(new URL(path, location.href.replace(/^http/, "ws")), protocols);
        this.socket.onmessage = ({ data }) => this.#tell(this.heard.push(JSON.parse(data)));
        this.socket.onclose = () => this.#tell((this.closed = true));
        this.opened = new Promise((resolve) => {
          this.socket.onopen = () => resolve(true);
          this.#look.add(() => this.closed && resolve(false));
        });
      }

      send(message) {
        this.socket.send(
          typeof message === "object" && !ArrayBuffer.isView(message) ? JSON.stringify(message) : message,
        );
      }

      /** Resolves with the first message that fits, or with "closed"; each is told once. */
      next(fits) {
        const found = new Promise((resolve) => {
          const look = () => {
            const at = this.heard.findIndex(fits);
            if (at < 0 && !this.closed) return;
            this.#look.delete(look);
            resolve(at < 0 ? "closed" : this.heard.splice(at, 1)[0]);
          };
          this.#look.add(look);
          look();
        });
        return soon(`${fits}`, found);
      }

      #tell() {
        for (const look of [...this.#look]) look();
      }
    }

    /** A connection through the relay, with a session if it gets one. */
    class Janus extends Line {
      session = undefined;

      constructor(key) {
        super("janus", ["janus-protocol", ...(key === undefined ? [] : [`seat.${key}`])]);
      }

      /** Resolves with the answer, or with "closed" where the question was too much. */
      ask(janus, more = {}) {
        const transaction = crypto.randomUUID();
        this.send({ janus, session_id: this.session, transaction, ...more });
        return this.next(
          (each) => each.transaction === transaction && (each.janus !== "ack" || janus === "keepalive"),
        );
      }

      async begin() {
        if (!(await this.opened)) return false;
        this.session = (await this.ask("create")).data?.id;
        return this.session !== undefined;
      }

      /** As a page that takes leave. */
      async end() {
        if (!this.closed) await this.ask("destroy");
        this.socket.close();
      }

      async attach(plugin) {
        const answer = await this.ask("attach", { plugin: `janus.plugin.${plugin}` });
        return answer.data?.id ?? answer;
      }

      /** Resolves with what the plugin says, the description beside it as `jsep`. */
      async request(handle_id, body, jsep) {
        const { plugindata, jsep: answer } = await this.ask("message", { handle_id, body, jsep });
        return { ...plugindata.data, jsep: answer };
      }
    }

    const gathered = (connection) =>
      new Promise((resolve) => {
        connection.onicegatheringstatechange = () => connection.iceGatheringState === "complete" && resolve();
      });

    /** A red picture that is drawn anew all the time, and a tone. */
    function media() {
      const canvas = Object.assign(document.createElement("canvas"), { width: 320, height: 180 });
      const context = canvas.getContext("2d");
      setInterval(() => {
        context.fillStyle = `rgb(${200 + Math.round(20 * Math.random())}, 0, 0)`;
        context.fillRect(0, 0, 320, 180);
      }, 50);
      const audio = new AudioContext();
      const tone = new OscillatorNode(audio, { frequency: 300 });
      const out = new MediaStreamAudioDestinationNode(audio);
      tone.connect(out);
      tone.start();
      return new MediaStream([...canvas.captureStream(20).getTracks(), ...out.stream.getTracks()]);
    }

    let stream;
    window.rogue = {
      lines: {},
      Janus,
      lobby: () => new Line("lobby", "zarvo-lobby"),

      /** Publishes as that name; resolves with the publisher's id, or with what was said against it. */
      async publish(janus, { room, token, pin, display, ...more }) {
        const handle = await janus.attach("videoroom");
        if (handle === "closed") return { refused: handle };
        const joined = await janus.request(handle, {
          request: "join",
          ptype: "publisher",
          room,
          token,
          pin,
          display,
        });
        if (joined.error_code) return { refused: joined.error_code };
        const connection = new RTCPeerConnection();
        stream ??= media();
        for (const track of stream.getTracks()) connection.addTrack(track, stream);
        await connection.setLocalDescription();
        await gathered(connection);
        const { type, sdp } = connection.localDescription;
        const { jsep, error_code: refused } = await janus.request(
          handle,
          { request: "publish", ...more },
          { type, sdp },
        );
        if (refused) return { refused };
        await connection.setRemoteDescription(jsep);
        return { id: joined.id, handle };
      },

      /** Receives a stream; resolves with the connection, or with what was said against it. */
      async subscribe(janus, { feed, ...where }) {
        const handle = await janus.attach("videoroom");
        const join = { request: "join", ptype: "subscriber", autoupdate: false, streams: [{ feed }] };
        const { error_code: refused, jsep } = await janus.request(handle, { ...join, ...where });
        if (refused) return { refused };
        const connection = new RTCPeerConnection();
        await connection.setRemoteDescription(jsep);
        await connection.setLocalDescription();
        await gathered(connection);
        const { type, sdp } = connection.localDescription;
        await janus.request(handle, { request: "start" }, { type, sdp });
        return { connection };
      },

      /** A channel for signals, that has entered no room yet: `ask` answers as the TextRoom does. */
      async signals(janus) {
        const handle = await janus.attach("textroom");
        const { jsep } = await janus.request(handle, { request: "setup" });
        const connection = new RTCPeerConnection();
        const channel = connection.createDataChannel("JanusDataChannel");
        const heard = [];
        channel.onmessage = ({ data }) => heard.push(JSON.parse(data));
        const opened = new Promise((resolve) => (channel.onopen = resolve));
        await connection.setRemoteDescription(jsep);
        await connection.setLocalDescription();
        await gathered(connection);
        const { type, sdp } = connection.localDescription;
        await janus.request(handle, { request: "ack" }, { type, sdp });
        await soon("a channel", opened);
        return {
          channel,
          async ask(message) {
            const transaction = crypto.randomUUID();
            channel.send(JSON.stringify({ ...message, transaction }));
            for (
              const end = Date.now() + PATIENCE;
              Date.now() < end;
              await new Promise((done) => setTimeout(done, 20))
            ) {
              const answer = heard.find((each) => each.transaction === transaction);
              if (answer) return answer;
            }
            throw new Error("no answer over the channel");
          },
          signal: (room, type, data) =>
            channel.send(
              JSON.stringify({
                textroom: "message",
                transaction: "t",
                room,
                ack: false,
                text: JSON.stringify({ type, data }),
              }),
            ),
        };
      },
    };
  });
