// A participant of a room, written from the room protocol alone (sdk/engine/README.md): what it sends has a
// known colour and tone, and it tells the colour and tone of what it receives.
class Janus {
  constructor(server) {
    this.transactions = 0;
    this.waiting = new Map();
    this.handlers = new Map();
    this.server = server;
  }
  async open() {
    this.socket = new WebSocket(this.server, 'janus-protocol');
    this.socket.onmessage = ({ data }) => {
      const message = JSON.parse(data);
      if (message.janus === 'ack') return;
      const reply = this.waiting.get(message.transaction);
      if (reply) {
        this.waiting.delete(message.transaction);
        reply(message);
      } else if (message.sender) {
        this.handlers.get(message.sender)?.(message);
      }
    };
    await new Promise((opened, failed) => Object.assign(this.socket, { onopen: opened, onerror: failed }));
    this.session = (await this.request({ janus: 'create' })).data.id;
    setInterval(() => this.request({ janus: 'keepalive' }), 20000);
  }
  request(message) {
    const transaction = String(++this.transactions);
    this.socket.send(JSON.stringify({ ...message, transaction, session_id: this.session }));
    return new Promise((reply) => this.waiting.set(transaction, reply));
  }
  async attach(plugin, handler) {
    const { data } = await this.request({ janus: 'attach', plugin: `janus.plugin.${plugin}` });
    if (handler) this.handlers.set(data.id, handler);
    return data.id;
  }
  async ask(handle, body, jsep) {
    const answer = await this.request({ janus: 'message', handle_id: handle, body, jsep });
    const data = answer.plugindata?.data ?? {};
    if (answer.error || data.error) throw new Error(JSON.stringify(answer.error ?? data));
    return { data, jsep: answer.jsep };
  }
  trickle(handle, connection) {
    connection.onicecandidate = ({ candidate }) => this.request(
      { janus: 'trickle', handle_id: handle, candidate: candidate ?? { completed: true } });
  }
}

const participants = new Map();  // by the name that the test gives them

async function joinRoom({ server, room, token, as }) {
  const me = { janus: new Janus(server), room, token, publishers: new Map(), signals: [] };
  await me.janus.open();
  const list = (publishers) => publishers?.forEach((each) => me.publishers.set(each.id, each));
  me.handle = await me.janus.attach('videoroom', ({ plugindata }) => {
    const data = plugindata?.data ?? {};
    list(data.publishers);
    me.publishers.delete(data.unpublished ?? data.leaving);
  });
  const { data } = await me.janus.ask(me.handle, { request: 'join', ptype: 'publisher', room, token, display: as });
  list(data.publishers);
  me.id = data.id;
  participants.set(as, me);
  return me.id;
}

async function makeRoom({ server, room, token }) {
  const janus = new Janus(server);
  await janus.open();
  const body = { request: 'create', room, secret: 'host', is_private: true, allowed: [token] };
  await janus.ask(await janus.attach('videoroom'), { ...body, publishers: 32, notify_joining: true });
  await janus.ask(await janus.attach('textroom'), body);
}

function draw(me) {
  const { canvas, color } = me;
  const context = canvas.getContext('2d');
  const [r, g, b] = color;
  context.fillStyle = `rgb(${r}, ${g}, ${b})`;
  context.fillRect(0, 0, canvas.width, canvas.height);
  // Something has to change, else no frames are captured.
  me.blink = !me.blink;
  context.fillStyle = me.blink ? 'black' : 'white';
  context.fillRect(0, 0, 2, 2);
}

async function publish({ as, type, width, height, color, tone }) {
  const me = participants.get(as);
  me.canvas = Object.assign(document.createElement('canvas'), { width, height });
  me.color = color;
  setInterval(() => draw(me), 33);
  const media = me.canvas.captureStream(30);
  const audio = new AudioContext({ sampleRate: 48000 });
  me.oscillator = new OscillatorNode(audio, { frequency: tone });
  const sink = audio.createMediaStreamDestination();
  me.oscillator.connect(new GainNode(audio, { gain: 0.5 })).connect(sink);
  me.oscillator.start();
  media.addTrack(sink.stream.getAudioTracks()[0]);

  me.connection = new RTCPeerConnection();
  me.janus.trickle(me.handle, me.connection);
  media.getTracks().forEach((track) => me.connection.addTrack(track, media));
  await me.connection.setLocalDescription();
  me.mid = Object.fromEntries(me.connection.getTransceivers().map((each) => [each.sender.track.kind, each.mid]));
  const descriptions = [{ mid: me.mid.video, description: `${type} ${width}x${height}` },
    { mid: me.mid.audio, description: 'on' }];
  const { jsep } = await me.janus.ask(me.handle, { request: 'publish', descriptions },
    me.connection.localDescription.toJSON());
  await me.connection.setRemoteDescription(jsep);
  return me.id;
}

window.change = ({ as, width, height, color, tone }) => {
  const me = participants.get(as);
  if (width) Object.assign(me.canvas, { width, height });
  if (color) me.color = color;
  if (tone) me.oscillator.frequency.value = tone;
};
window.describe = ({ as, kind, description }) => {
  const me = participants.get(as);
  return me.janus.ask(me.handle,
    { request: 'configure', descriptions: [{ mid: me.mid[kind], description }] }).then(() => null);
};
window.unpublish = ({ as }) => {
  const me = participants.get(as);
  me.connection.close();
  return me.janus.request({ janus: 'message', handle_id: me.handle, body: { request: 'unpublish' } }).then(() => null);
};
// As a page that goes away does.
window.leave = ({ as }) => {
  participants.get(as).janus.request({ janus: 'destroy' });
  participants.get(as).connection?.close();
  participants.delete(as);
};

async function openSignals({ as }) {
  const me = participants.get(as);
  const handle = await me.janus.attach('textroom');
  const connection = new RTCPeerConnection();
  me.janus.trickle(handle, connection);
  me.channel = connection.createDataChannel('JanusDataChannel', { ordered: true });
  const { jsep } = await me.janus.ask(handle, { request: 'setup' });
  await connection.setRemoteDescription(jsep);
  await connection.setLocalDescription();
  await me.janus.ask(handle, { request: 'ack' }, connection.localDescription.toJSON());
  if (me.channel.readyState !== 'open') await new Promise((opened) => { me.channel.onopen = opened; });
  await new Promise((joined) => {
    me.channel.onmessage = ({ data }) => {
      const message = JSON.parse(data);
      if (message.transaction === 'join') joined();
      if (message.textroom === 'message') me.signals.push({ ...JSON.parse(message.text), from: message.from });
    };
    me.channel.send(JSON.stringify(
      { textroom: 'join', transaction: 'join', room: me.room, token: me.token, username: me.id }));
  });
}

window.sendText = ({ as, text }) => {
  const me = participants.get(as);
  me.channel.send(JSON.stringify(
    { textroom: 'message', transaction: 'message', room: me.room, ack: false, text }));
};
window.sendSignal = ({ as, type, data }) => window.sendText({ as, text: JSON.stringify({ type, data }) });
window.signals = ({ as }) => participants.get(as).signals;
window.publishers = ({ as }) => [...participants.get(as).publishers.values()];

async function watch({ as, feed }) {
  const me = participants.get(as);
  const handle = await me.janus.attach('videoroom');
  const { jsep } = await me.janus.ask(handle,
    { request: 'join', ptype: 'subscriber', room: me.room, token: me.token, streams: [{ feed }] });
  const connection = new RTCPeerConnection();
  me.janus.trickle(handle, connection);
  const media = new MediaStream();
  connection.ontrack = ({ track }) => media.addTrack(track);
  await connection.setRemoteDescription(jsep);
  await connection.setLocalDescription();
  await me.janus.ask(handle, { request: 'start' }, connection.localDescription.toJSON());
  const video = Object.assign(document.createElement('video'), { srcObject: media, muted: true });
  video.play();  // begins with the first picture
  const audio = new AudioContext({ sampleRate: 48000 });
  const analyser = new AnalyserNode(audio, { fftSize: 8192 });
  audio.createMediaStreamSource(media).connect(analyser);
  me.watched = { video, analyser, connection };
}

// The size and middle colour of the watched picture, the number of its frames, and the loudest tone.
function look({ as }) {
  const { video, analyser } = participants.get(as).watched;
  const canvas = Object.assign(document.createElement('canvas'), { width: 1, height: 1 });
  const context = canvas.getContext('2d');
  context.drawImage(video, video.videoWidth / 2, video.videoHeight / 2, 1, 1, 0, 0, 1, 1);
  const color = [...context.getImageData(0, 0, 1, 1).data].slice(0, 3);
  const levels = new Float32Array(analyser.frequencyBinCount);
  analyser.getFloatFrequencyData(levels);
  const loudest = levels.indexOf(Math.max(...levels));
  return {
    width: video.videoWidth, height: video.videoHeight, color,
    frames: video.getVideoPlaybackQuality().totalVideoFrames,
    tone: loudest * 48000 / analyser.fftSize, level: levels[loudest],
  };
}
