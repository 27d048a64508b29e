// The calls of the server, as promises. A call that fails throws an ApiError.
const ROOT = "/api/v1/";

export class ApiError extends Error {
    // status 0, code "unreachable": no answer at all. details: one {name, message} a refused value.
    constructor(status, code, message, details = []) {
        super(message);
        Object.assign(this, {status, code, details});
    }
}

let csrf = "";
let signedOut = () => {};

// `callback` is called when a call finds that nobody is logged in (any more).
export function onSignedOut(callback) {
    signedOut = callback;
}

async function failure(response) {
    const {error = {}} = await response.json().catch(() => ({}));
    const retry = Number(response.headers.get("Retry-After")) || 0;
    const failed = new ApiError(
        response.status,
        error.code ?? "unknown",
        error.message ?? response.statusText,
        error.details,
    );
    return Object.assign(failed, {retry});
}

async function send(method, path, {body, type = "application/json", headers = {}} = {}) {
    const request = {method, headers: {...headers}, credentials: "same-origin", cache: "no-store"};
    if (method !== "GET") {
        request.headers["X-Kelconf-Csrf"] = csrf;
    }
    if (body !== undefined) {
        request.headers["Content-Type"] = type;
        request.body = type === "application/json" ? JSON.stringify(body) : body;
    }
    let response;
    try {
        response = await fetch(ROOT + path, request);
    } catch {
        throw new ApiError(0, "unreachable", "");
    }
    if (!response.ok && response.status !== 304) {
        throw await failure(response);
    }
    return response;
}

// The accounts may be gone, too: then nobody is logged in either.
export const isSignedOut = ({status, code}) => status === 401 || code === "setup_needed";

function noticeEnd(error) {
    if (isSignedOut(error)) {
        signedOut();
    }
    throw error;
}

async function call(method, path, options) {
    const response = await send(method, path, options).catch(noticeEnd);
    return response.status === 204 ? null : response.json().catch(() => null);
}

async function signIn(method, path, body) {
    const response = await send(method, path, {body});
    const session = await response.json();
    csrf = session.csrf;
    return session;
}

export const setupState = () => send("GET", "setup").then((response) => response.json());
export const setUp = (body) => signIn("POST", "setup", body);
export const logIn = (name, password) => signIn("POST", "session", {name, password});
export const session = () => signIn("GET", "session");
export const logOut = () => call("DELETE", "session");
export const changePassword = (old, fresh) =>
    call("PUT", "session/password", {body: {old, new: fresh}});

let etag = "";

// All parameters, or null when nothing has changed since the last call. `anew` asks for them in
// any case.
export async function parameters(anew) {
    const headers = etag && !anew ? {"If-None-Match": etag} : {};
    const response = await send("GET", "parameters", {headers}).catch(noticeEnd);
    etag = response.headers.get("ETag") ?? "";
    return response.status === 304 ? null : (await response.json()).parameters;
}

export const parameter = (name) => call("GET", `parameters/${encodeURIComponent(name)}`);
export const set = (values) => call("PATCH", "parameters", {body: {store: "now", values}});
export const reset = (prefixes, dry_run) => call("POST", "reset", {body: {prefixes, dry_run}});
export const status = () => call("GET", "status");

export async function exported(prefix, changedOnly) {
    const query = new URLSearchParams();
    if (prefix) {
        query.set("prefix", prefix);
    }
    if (changedOnly) {
        query.set("changed", "1");
    }
    return (await send("GET", `export?${query}`).catch(noticeEnd)).blob();
}

export const imported = (text, dry_run) =>
    call("POST", dry_run ? "import?dry_run=1" : "import", {body: text, type: "text/plain"});

export const accounts = () => call("GET", "accounts").then((answer) => answer.accounts);
export const addAccount = (account) => call("POST", "accounts", {body: account});
export const changeAccount = (name, change) =>
    call("PATCH", `accounts/${encodeURIComponent(name)}`, {body: change});
export const removeAccount = (name) => call("DELETE", `accounts/${encodeURIComponent(name)}`);

// The events until close() of the result is called. handlers: open(), change(data), resync(),
// service(data), lost(). After lost() the stream is closed; who wants it back, calls again.
export function events(handlers) {
    const source = new EventSource(`${ROOT}events`);
    source.addEventListener("open", () => handlers.open());
    source.addEventListener("change", (event) => handlers.change(JSON.parse(event.data)));
    source.addEventListener("resync", () => handlers.resync());
    source.addEventListener("service", (event) => handlers.service(JSON.parse(event.data)));
    source.addEventListener("error", () => {
        source.close();
        handlers.lost();
    });
    return source;
}
