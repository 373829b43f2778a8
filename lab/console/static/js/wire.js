// The one connection to the lab: what happens comes in, commands go out.

const RETRY_MS = [300, 1000, 2000, 5000];

let socket = null;
let attempts = 0;
let nextId = 1;
const running = new Map();
const topics = new Map();
let handlers = {};
let away = false;

// hello(all), live(items, missed), link("live" | "connecting" | "lost")
export function connect(given) {
  handlers = given;
  open();
}

// A page that is left may be kept for the way back, its connection with it: the lab would go on with
// commands that nobody looks at.
window.addEventListener("pagehide", () => {
  away = true;
  socket?.close();
  closed();
});
window.addEventListener("pageshow", (event) => {
  if (!event.persisted) return;
  away = false;
  open();
});

function open() {
  handlers.link(attempts ? "lost" : "connecting");
  const mine = new WebSocket(`ws://${location.host}/live`);
  socket = mine;
  mine.onmessage = (event) => hear(JSON.parse(event.data));
  mine.onclose = () => {
    if (socket === mine) closed(); // else a newer one is in its place
  };
}

function closed() {
  socket = null;
  handlers.link("lost");
  for (const command of [...running.values()]) {
    command.finish({ outcome: "failed", text: "The connection to the lab was lost.", data: {} });
  }
  if (away) return;
  setTimeout(open, RETRY_MS[Math.min(attempts, RETRY_MS.length - 1)]);
  attempts += 1;
}

function hear(message) {
  if (message.kind === "hello") {
    attempts = 0;
    handlers.link("live");
    handlers.hello(message);
    if (topics.size) tellTopics();
  } else if (message.kind === "live") {
    handlers.live(message.items, message.missed);
  } else if (message.kind === "told") {
    running.get(message.id)?.told(message.what);
  } else if (message.kind === "end") {
    running.get(message.id)?.finish(message);
  }
}

function send(wish) {
  if (socket?.readyState !== WebSocket.OPEN) return false;
  socket.send(JSON.stringify(wish));
  return true;
}

// Runs a command of the lab. `told` gets each message and note on the way; `done` becomes its end:
// {outcome: "done" | "failed" | "refused" | "cancelled", text, data}.
export function run(command, parameters = {}, told = () => {}) {
  const id = nextId;
  nextId += 1;
  const done = new Promise((resolve) => {
    const finish = (end) => {
      running.delete(id);
      resolve(end);
    };
    running.set(id, { told, finish });
    if (!send({ do: "run", id, command, arguments: parameters })) {
      finish({ outcome: "failed", text: "There is no connection to the lab.", data: {} });
    }
  });
  return { done, cancel: () => send({ do: "cancel", id }) };
}

function tellTopics() {
  send({ do: "follow", topics: [...topics.keys()] });
}

// Asks for "log" or "report" items; the function that is returned ends it.
export function follow(topic) {
  topics.set(topic, (topics.get(topic) ?? 0) + 1);
  tellTopics();
  return () => {
    const left = topics.get(topic) - 1;
    if (left) topics.set(topic, left);
    else topics.delete(topic);
    tellTopics();
  };
}

// Reads JSON of the console; throws with what the server said.
export async function read(path) {
  const answer = await fetch(path);
  if (!answer.ok) throw new Error((await answer.text()).trim() || `HTTP ${answer.status}`);
  return answer.json();
}
