// A client of the Foxglove WebSocket protocol, version 1: channels, services and parameters.

const kSubprotocols = ["foxglove.sdk.v1", "foxglove.websocket.v1"];
const kRetryDelays_ms = [300, 600, 1000, 2000];

/** Op codes of binary messages. */
const kMessageData = 1; // from the server
const kServiceCallRequest = 2; // from the client
const kServiceCallResponse = 3; // from the server

const decoder = new TextDecoder();
const encoder = new TextEncoder();

/**
 * A connection that comes back by itself. Subscriptions are to topics: they begin when the server advertises a channel of that
 * topic, and again after each reconnection.
 *
 * Events: "state" (connected or not), "channels", "services" and "parameters" (what there is has changed), "status" (detail: a
 * message of the server, {level, message}).
 */
export class Client extends EventTarget {
    constructor(url) {
        super();
        this.url = url;
        this.server = {}; // the serverInfo message
        this.channels = new Map(); // by topic
        this.services = new Map(); // by name
        this.parameters = new Map(); // values by name
        this.connected = false;
        this.everConnected = false;
        this.listeners = new Map(); // sets of functions by topic
        this.subscriptions = new Map(); // topics by subscription id
        this.subscriptionIds = new Map(); // by topic
        this.lastMessages = new Map(); // by topic, of subscriptions
        this.calls = new Map(); // {resolve, reject} by call id
        this.nextId = 1;
        this.retries = 0;
        this.open();
    }

    /**
     * Calls `listener(payload, time_ns)` with each message of the topic, the last one that others got here included;
     * payload is a DataView. Returns what ends that.
     */
    subscribe(topic, listener) {
        const listeners = this.listeners.get(topic) ?? new Set();
        this.listeners.set(topic, listeners.add(listener));
        this.startSubscription(topic);
        const last = this.lastMessages.get(topic);
        if (last) {
            queueMicrotask(() => listeners.has(listener) && listener(...last));
        }
        return () => {
            if (listeners.delete(listener) && listeners.size === 0 && this.listeners.get(topic) === listeners) {
                this.listeners.delete(topic);
                this.endSubscription(topic);
            }
        };
    }

    /** The same with the payload parsed as JSON. */
    subscribeJson(topic, listener) {
        return this.subscribe(topic, (payload, time_ns) => listener(JSON.parse(decoder.decode(payload)), time_ns));
    }

    /** Calls a service. The promise has its answer, or fails with the server's text. */
    call(name, request) {
        const service = this.services.get(name);
        if (!service) {
            return Promise.reject(new Error(`${name} is not there`));
        }
        const id = this.nextId++;
        const encoding = encoder.encode("json");
        const body = encoder.encode(JSON.stringify(request));
        const message = new Uint8Array(13 + encoding.length + body.length);
        const view = new DataView(message.buffer);
        view.setUint8(0, kServiceCallRequest);
        view.setUint32(1, service.id, true);
        view.setUint32(5, id, true);
        view.setUint32(9, encoding.length, true);
        message.set(encoding, 13);
        message.set(body, 13 + encoding.length);
        return new Promise((resolve, reject) => {
            this.calls.set(id, { resolve, reject });
            this.socket.send(message);
        });
    }

    /** Asks for the values of all parameters, which then arrive whenever one changes. */
    requestParameters() {
        this.send({ op: "getParameters", parameterNames: [], id: "all" });
    }

    setParameter(name, value) {
        this.send({ op: "setParameters", parameters: [{ name, value }] });
    }

    /** Drops a connection that has gone silent, and makes another. */
    reconnect() {
        this.socket.close();
        this.lose(this.socket);
    }

    open() {
        clearTimeout(this.timer);
        const socket = new WebSocket(this.url, kSubprotocols);
        socket.binaryType = "arraybuffer";
        socket.onclose = () => this.lose(socket);
        socket.onmessage = ({ data }) => {
            if (socket !== this.socket) {
                return; // from an abandoned connection
            }
            try {
                if (typeof data === "string") {
                    this.takeText(JSON.parse(data));
                } else {
                    this.takeBinary(new DataView(data));
                }
            } catch (error) {
                console.error("a message was dropped:", error);
            }
        };
        this.socket = socket;
    }

    lose(socket) {
        if (socket !== this.socket) {
            return;
        }
        this.socket = { send() {}, close() {} };
        this.connected = false;
        this.channels.clear();
        this.services.clear();
        this.parameters.clear();
        this.subscriptions.clear();
        this.subscriptionIds.clear();
        this.lastMessages.clear();
        for (const { reject } of this.calls.values()) {
            reject(new Error("the connection was lost before the answer came"));
        }
        this.calls.clear();
        this.timer = setTimeout(() => this.open(), kRetryDelays_ms[Math.min(this.retries++, kRetryDelays_ms.length - 1)]);
        this.report("state", "channels", "services", "parameters");
    }

    send(message) {
        if (this.connected) {
            this.socket.send(JSON.stringify(message));
        }
    }

    report(...events) {
        events.forEach((event) => this.dispatchEvent(new Event(event)));
    }

    startSubscription(topic) {
        const channel = this.channels.get(topic);
        if (!channel || this.subscriptionIds.has(topic) || !this.listeners.has(topic)) {
            return;
        }
        const id = this.nextId++;
        this.subscriptions.set(id, topic);
        this.subscriptionIds.set(topic, id);
        this.send({ op: "subscribe", subscriptions: [{ id, channelId: channel.id }] });
    }

    endSubscription(topic) {
        const id = this.subscriptionIds.get(topic);
        if (id !== undefined) {
            this.send({ op: "unsubscribe", subscriptionIds: [id] });
            this.forgetSubscription(topic);
        }
    }

    forgetSubscription(topic) {
        this.subscriptions.delete(this.subscriptionIds.get(topic));
        this.subscriptionIds.delete(topic);
        this.lastMessages.delete(topic);
    }

    takeText(message) {
        switch (message.op) {
            case "serverInfo":
                this.server = message;
                this.connected = true;
                this.everConnected = true;
                this.retries = 0;
                this.requestParameters();
                this.report("state");
                break;
            case "advertise":
                for (const channel of message.channels) {
                    this.forgetSubscription(channel.topic);
                    this.channels.set(channel.topic, channel);
                    this.startSubscription(channel.topic);
                }
                if (message.channels.some(({ topic }) => topic.startsWith("/camera/"))) {
                    this.requestParameters(); // a picture's parameters exist once its channel does
                }
                this.report("channels");
                break;
            case "unadvertise": {
                const ids = new Set(message.channelIds);
                for (const [topic, channel] of this.channels) {
                    if (ids.has(channel.id)) {
                        this.forgetSubscription(topic);
                        this.channels.delete(topic);
                    }
                }
                this.report("channels");
                break;
            }
            case "advertiseServices":
                message.services.forEach((service) => this.services.set(service.name, service));
                this.report("services");
                break;
            case "unadvertiseServices": {
                const ids = new Set(message.serviceIds);
                for (const [name, service] of this.services) {
                    if (ids.has(service.id)) {
                        this.services.delete(name);
                    }
                }
                this.report("services");
                break;
            }
            case "serviceCallFailure":
                this.finishCall(message.callId)?.reject(new Error(message.message));
                break;
            case "parameterValues": {
                const known = this.parameters.size;
                message.parameters.forEach(({ name, value }) => this.parameters.set(name, value));
                if (this.parameters.size !== known && this.server.capabilities?.includes("parametersSubscribe")) {
                    this.send({ op: "subscribeParameterUpdates", parameterNames: [...this.parameters.keys()] });
                }
                this.report("parameters");
                break;
            }
            case "status":
                this.dispatchEvent(new CustomEvent("status", { detail: message }));
                break;
        }
    }

    takeBinary(message) {
        switch (message.getUint8(0)) {
            case kMessageData: {
                const topic = this.subscriptions.get(message.getUint32(1, true));
                const time_ns = message.getBigUint64(5, true);
                const payload = new DataView(message.buffer, 13);
                if (topic !== undefined) {
                    this.lastMessages.set(topic, [payload, time_ns]);
                }
                for (const listener of [...(this.listeners.get(topic) ?? [])]) {
                    listener(payload, time_ns);
                }
                break;
            }
            case kServiceCallResponse: {
                const encodingLength = message.getUint32(9, true);
                const body = decoder.decode(new DataView(message.buffer, 13 + encodingLength));
                this.finishCall(message.getUint32(5, true))?.resolve(body === "" ? {} : JSON.parse(body));
                break;
            }
        }
    }

    finishCall(id) {
        const call = this.calls.get(id);
        this.calls.delete(id);
        return call;
    }
}

/** Reads a sensor_msgs/msg/CompressedImage in CDR: {time_ms, frameId, format, data}, data being a view of the payload. */
export function readCompressedImage(payload) {
    const littleEndian = payload.getUint8(1) === 1;
    let at = 4; // behind the encapsulation; alignment counts from there
    const readWord = () => {
        at += (8 - (at % 4)) % 4;
        at += 4;
        return payload.getUint32(at - 4, littleEndian);
    };
    const readBytes = (length) => {
        if (at + length > payload.byteLength) {
            throw new RangeError(`${length} bytes announced, ${payload.byteLength - at} there`);
        }
        at += length;
        return new Uint8Array(payload.buffer, payload.byteOffset + at - length, length);
    };
    const readString = () => decoder.decode(readBytes(readWord())).replace(/\0$/, "");
    const seconds = readWord();
    const nanoseconds = readWord();
    const frameId = readString();
    const format = readString();
    return { time_ms: seconds * 1000 + nanoseconds / 1e6, frameId, format, data: readBytes(readWord()) };
}
