// What is there before anybody is logged in: the set-up of the first account, and the log-in.
import * as api from "./api.js";
import {h, icon} from "./dom.js";
import {t} from "./i18n.js";
import {field, problemBox, reasonOf, say} from "./dialogs.js";

function card(title, words, ...content) {
    return h(
        "main",
        {class: "sign-in"},
        h(
            "div",
            {class: "card"},
            h("div", {class: "brand"}, h("img", {src: "icon.svg", alt: "", width: 40, height: 40})),
            h("h1", {}, title),
            words && h("p", {class: "faint"}, words),
            content,
        ),
    );
}

function show(element) {
    document.getElementById("app").replaceChildren(element);
    element.querySelector("input")?.focus();
}

// A form with one button. `submit` may throw an ApiError, which is then shown.
function signInForm(fields, action, submit) {
    const problem = problemBox();
    const act = h("button", {type: "submit", class: "primary wide"}, action);
    return h(
        "form",
        {
            onsubmit: async (event) => {
                event.preventDefault();
                act.disabled = true;
                try {
                    await submit();
                } catch (error) {
                    say(problem, error.status === 401 ? t("sign_in.wrong") : reasonOf(error));
                } finally {
                    act.disabled = false;
                }
            },
        },
        fields,
        problem,
        act,
    );
}

const nameField = () =>
    field(t("sign_in.name"), {
        autocomplete: "username",
        autocapitalize: "none",
        spellcheck: "false",
    });

// Resolves with the session.
export function logIn(words) {
    return new Promise((resolve) => {
        const name = nameField();
        const password = field(t("sign_in.password"), {
            type: "password",
            autocomplete: "current-password",
        });
        const form = signInForm([name, password], t("sign_in.action"), async () => {
            resolve(await api.logIn(name.input.value, password.input.value));
        });
        show(card(t("sign_in.title"), words || location.host, form));
    });
}

export function setUp({allowed, code_needed: codeNeeded}) {
    if (!allowed && !codeNeeded) {
        show(card(t("set_up.title"), t("set_up.elsewhere")));
        return new Promise(() => {});
    }
    return new Promise((resolve) => {
        const name = nameField();
        const password = field(t("password.new"), {type: "password", autocomplete: "new-password"});
        const again = field(t("password.again"), {type: "password", autocomplete: "new-password"});
        const code = codeNeeded && field(t("set_up.code"), {}, t("set_up.code_words"));
        const form = signInForm([name, password, again, code], t("set_up.action"), async () => {
            if (password.input.value !== again.input.value) {
                throw new Error(t("password.differ"));
            }
            resolve(
                await api.setUp({
                    name: name.input.value,
                    password: password.input.value,
                    ...(code && {code: code.input.value}),
                }),
            );
        });
        show(card(t("set_up.title"), t("set_up.words"), form));
    });
}

// While not even the server answers.
export function away() {
    show(
        card(
            t("away.title"),
            t("away.words"),
            h("p", {class: "trying", role: "status"}, icon("alert"), t("away.trying")),
        ),
    );
}
