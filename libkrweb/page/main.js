// Puts the page together: the connection, the panels, the theme and the keys.

import { CamerasPanel } from "./cameras.js";
import { notify, setText, settings } from "./dom.js";
import { ExtractorsPanel } from "./extractors.js";
import { MemoryPanel } from "./memory.js";
import { Client } from "./protocol.js";
import { EventsPanel, LogPanel } from "./stream.js";

const kSilence_ms = 6000; // the server sends the state of the cameras every second

const find = (selector) => document.querySelector(selector);
const parts = (id) => [".rows, .cards", ".empty", ".clear"].map((selector) => find(`#${id}`).querySelector(selector));

function connect() {
    const url = new URL("/", location.href);
    url.protocol = location.protocol === "https:" ? "wss:" : "ws:";
    const token = new URLSearchParams(location.search).get("token");
    if (token !== null) {
        url.searchParams.set("token", token);
    }
    return new Client(url.href);
}

const client = connect();
const extractors = new ExtractorsPanel(client, ...parts("extractors"));
new CamerasPanel(client, extractors, ...parts("cameras"));
const memory = find("#memory");
new MemoryPanel(client, {
    list: memory.querySelector(".rows"),
    note: memory.querySelector(".empty"),
    filter: find("#filter"),
    plots: memory.querySelector(".plots"),
    windows: memory.querySelector(".windows"),
});
new EventsPanel(client, ...parts("events"));
new LogPanel(client, ...parts("log"));

// The connection. A server that vanished without closing it is detected by its silence.

let heard_ms = performance.now();
let service;
client.subscribeJson("/cameras", (state) => {
    heard_ms = performance.now();
    service = state.service;
    setText(find("#domain"), state.domain ?? "");
    showConnection();
});
client.addEventListener("state", () => {
    heard_ms = performance.now();
    showConnection();
});
client.addEventListener("status", ({ detail: { level, message } }) => level === 2 && notify(message));
setInterval(() => {
    if (client.connected && document.visibilityState === "visible" && performance.now() - heard_ms > kSilence_ms) {
        heard_ms = performance.now();
        client.reconnect();
    }
}, 1000);

function showConnection() {
    const [kind, text, banner] = describeConnection();
    const chip = find("#connection");
    chip.className = `state ${kind}`;
    setText(chip, text);
    find("#banner").hidden = banner === "";
    setText(find("#banner"), banner);
    document.body.classList.toggle("disconnected", !client.connected);
}

function describeConnection() {
    if (!client.connected) {
        return client.everConnected
            ? ["bad", "disconnected", "Lost the connection to the server. This page reconnects automatically."]
            : ["idle", "connecting", client.retries > 1 ? "The server refuses the connection. If it needs a token, open its address with ?token=TOKEN." : ""];
    }
    if (service === false) {
        return ["warn", "no cameras", "The camera service is gone. Pictures reappear when it comes back."];
    }
    return client.server.metadata?.readOnly === "true" ? ["good", "live, read only", ""] : ["good", "live", ""];
}

// The theme.

const kThemes = ["system", "light", "dark"];
let theme = settings.get("theme", "system");

function showTheme() {
    if (theme === "system") {
        delete document.documentElement.dataset.theme;
    } else {
        document.documentElement.dataset.theme = theme;
    }
    setText(find("#theme"), { system: "Auto", light: "Light", dark: "Dark" }[theme]);
}

function nextTheme() {
    theme = kThemes[(kThemes.indexOf(theme) + 1) % kThemes.length];
    settings.set("theme", theme);
    showTheme();
}

find("#theme").addEventListener("click", nextTheme);
find("#keys").addEventListener("click", () => find("#help").showModal());
showTheme();

// The keys.

function pauseFocused() {
    const cards = [...document.querySelectorAll("[data-extractor]")];
    const card = document.activeElement.closest("[data-extractor]") ?? (cards.length === 1 ? cards[0] : undefined);
    card?.querySelector("button.pause")?.click();
}

document.addEventListener("keydown", (event) => {
    const isTyping = event.target.closest("input:not([type=range], [type=checkbox]), select, textarea, dialog");
    if (isTyping || event.ctrlKey || event.altKey || event.metaKey) {
        return;
    }
    const section = ["cameras", "extractors", "memory", "events", "log"][Number(event.key) - 1];
    if (section) {
        find(`#${section}`).focus({ preventScroll: true });
        find(`#${section}`).scrollIntoView({ block: "start" });
    } else if (event.key === "/") {
        find("#filter").focus();
    } else if (event.key === "p") {
        pauseFocused();
    } else if (event.key === "t") {
        nextTheme();
    } else if (event.key === "?") {
        find("#help").showModal();
    } else {
        return;
    }
    event.preventDefault();
});
