// What the page knows: the parameters as the device has them, and what the user wants to change.
//
// Everything that changes is gathered and told to the listeners once a frame, however many events
// came: listener(names, whole), where `whole` says that the list itself is a new one.
import * as api from "./api.js";
import {brokenRule, decimalOf} from "./rules.js";

const HISTORY = 48; // values of a realtime parameter that are kept for its curve

export const parameters = new Map(); // name -> as the API has it, sorted by name
export const edits = new Map(); // name -> {value, base, conflict}: base was seen when it began
export const refusals = new Map(); // name -> why the server refused the value of the edit
export const histories = new Map(); // name -> the last values of a realtime parameter, as numbers

const sending = new Set(); // names on their way: an event about them is our own
const listeners = [];
let dirty = new Set();
let whole = false;
let scheduled = false;

export function onUpdate(listener) {
    listeners.push(listener);
}

function flush() {
    const names = dirty;
    const everything = whole;
    dirty = new Set();
    whole = scheduled = false;
    for (const listener of listeners) {
        listener(names, everything);
    }
}

function touch(name) {
    dirty.add(name);
    if (!scheduled) {
        scheduled = true;
        requestAnimationFrame(flush);
    }
}

// --- what the device has

// `list` is null when nothing has changed since the last one. Who holds a parameter holds it on.
export function load(list) {
    if (!list) {
        return;
    }
    const known = new Map(parameters);
    parameters.clear();
    for (const fresh of list) {
        const before = known.get(fresh.name)?.value;
        const parameter = Object.assign(known.get(fresh.name) ?? {}, fresh);
        parameters.set(fresh.name, parameter);
        if (before !== fresh.value) {
            remember(parameter);
            reconsider(fresh.name);
        }
        touch(fresh.name);
    }
    const gone = [...edits.keys()].filter((name) => parameters.get(name)?.access !== "rw");
    gone.forEach(undo);
    whole ||= known.size !== parameters.size || list.some(({name}) => !known.has(name));
}

// An edit whose parameter has changed under it: the same value makes it needless, another makes it
// a conflict, the one that it began with ends the conflict.
function reconsider(name) {
    const edit = edits.get(name);
    const parameter = parameters.get(name);
    if (!edit || !parameter || parameter.secret) {
        return;
    }
    if (edit.value === parameter.value) {
        edits.delete(name);
        refusals.delete(name);
    } else {
        edit.conflict = edit.base !== parameter.value;
    }
}

function remember(parameter) {
    const value = parameter.state ? decimalOf(parameter.value) : null;
    if (value === null) {
        return;
    }
    const history = histories.get(parameter.name) ?? [];
    history.push(Number(parameter.value));
    if (history.length > HISTORY) {
        history.shift();
    }
    histories.set(parameter.name, history);
}

// A change event.
export function changed({name, value, set}) {
    const parameter = parameters.get(name);
    if (!parameter) {
        return;
    }
    if (parameter.secret) {
        parameter.set = set;
        refetch(name);
        const edit = edits.get(name);
        if (edit && !sending.has(name)) {
            edit.conflict = true;
        }
    } else {
        parameter.value = value;
        parameter.changed = !parameter.state && value !== parameter.default;
        remember(parameter);
        reconsider(name);
    }
    touch(name);
}

// Of a secret only the server knows whether it differs from the factory's.
async function refetch(name) {
    const fresh = await api.parameter(name).catch(() => null);
    if (fresh) {
        Object.assign(parameters.get(name), fresh);
        touch(name);
    }
}

// --- what the user wants

export const shownValue = (name) => edits.get(name)?.value ?? parameters.get(name).value ?? "";

export function edit(name, value) {
    const parameter = parameters.get(name);
    const present = edits.get(name);
    refusals.delete(name);
    if (!parameter.secret && value === parameter.value) {
        edits.delete(name);
    } else if (present) {
        present.value = value;
    } else {
        edits.set(name, {value, base: parameter.value, conflict: false});
    }
    touch(name);
}

export function undo(name) {
    edits.delete(name);
    refusals.delete(name);
    touch(name);
}

export function undoAll() {
    for (const name of [...edits.keys()]) {
        undo(name);
    }
}

export function keepMine(name) {
    const edit = edits.get(name);
    edit.base = parameters.get(name).value;
    edit.conflict = false;
    touch(name);
}

// Why the value that the user wants cannot be; empty when it can.
export function problemOf(name) {
    const edit = edits.get(name);
    return edit ? refusals.get(name) || brokenRule(parameters.get(name), edit.value) : "";
}

// How many edits there are, and the names of those that stand in the way of sending.
export function pending() {
    const names = [...edits.keys()];
    return {
        count: names.length,
        conflicts: names.filter((name) => edits.get(name).conflict),
        broken: names.filter((name) => problemOf(name)),
    };
}

// Sends all edits at once. Throws the ApiError; each value that was refused then has its reason.
export async function apply() {
    const values = Object.fromEntries([...edits].map(([name, {value}]) => [name, value]));
    Object.keys(values).forEach((name) => sending.add(name));
    try {
        await api.set(values);
        Object.entries(values).forEach(([name, value]) => accepted(name, value));
        return Object.keys(values).length;
    } catch (error) {
        for (const {name, message} of error.details ?? []) {
            refusals.set(name, message);
            touch(name);
        }
        throw error;
    } finally {
        Object.keys(values).forEach((name) => sending.delete(name));
    }
}

function accepted(name, value) {
    const edit = edits.get(name);
    changed({name, value, set: value !== ""});
    if (edit?.value === value) {
        undo(name);
    } else if (edit) {
        // typed on meanwhile
        edit.base = value;
        edit.conflict = false;
    }
}
