// The line to the device: the list of the parameters, the changes as they happen, and how it stands.
//
// The state is "up", "away" (the server answers, the service behind it does not) or "lost" (no
// server). From the two latter it comes back by itself.
import * as api from "./api.js";
import * as store from "./store.js";

const RETRY = 1000; // ms, and twice as long after each failure
const RETRY_MOST = 10000;
const RELOAD = 2000; // ms, while the service is away

let tell = () => {};

// stream: null between its end and the next try.
// away: the server has said that the service is.
// held: changes that wait for the list that is being read; null while none is.
// again: is it to be read again after that, and then in any case; null when it is not.
const line = {
    stream: null,
    waiting: 0,
    retry: RETRY,
    reload: 0,
    held: null,
    again: null,
    away: false,
};

// Reads the list, also an unchanged one when `anew`. Changes that arrive meanwhile are told after it.
async function load(anew = false) {
    if (line.held) {
        line.again = Boolean(line.again || anew);
        return;
    }
    line.held = [];
    clearTimeout(line.reload);
    try {
        store.load(await api.parameters(anew));
        if (line.stream && !line.away) {
            // else a list that came in time says nothing of now
            tell("up");
        }
        line.held.forEach(store.changed);
    } catch (error) {
        cannotLoad(error);
    } finally {
        line.held = null;
    }
    if (line.again !== null) {
        const again = line.again;
        line.again = null;
        load(again);
    }
}

function cannotLoad(error) {
    if (!(error instanceof api.ApiError)) {
        throw error;
    }
    if (!api.isSignedOut(error)) {
        tell(error.status === 0 ? "lost" : "away");
        line.reload = setTimeout(load, RELOAD);
    }
}

// `listener(state)` hears each state, also when it is the one before.
export function connect(listener) {
    disconnect();
    tell = listener;
    open();
    load(true);
}

function open() {
    line.stream = api.events({
        open() {
            line.retry = RETRY;
            line.away = false;
            load();
        },
        change: (change) => (line.held ? line.held.push(change) : store.changed(change)),
        resync: () => load(true),
        service({state}) {
            line.away = state !== "up";
            if (line.away) {
                tell("away");
            } else {
                load(true);
            }
        },
        lost() {
            line.stream = null;
            tell("lost");
            line.waiting = setTimeout(reconnect, line.retry);
            line.retry = Math.min(2 * line.retry, RETRY_MOST);
        },
    });
}

// The stream does not tell why it ended: a call does.
async function reconnect() {
    try {
        await api.status();
        open();
    } catch (error) {
        if (error.status === 503) {
            open();
        } else if (!api.isSignedOut(error)) {
            tell("lost");
            line.waiting = setTimeout(reconnect, line.retry);
            line.retry = Math.min(2 * line.retry, RETRY_MOST);
        }
    }
}

export function disconnect() {
    tell = () => {};
    line.stream?.close();
    clearTimeout(line.waiting);
    clearTimeout(line.reload);
}
