// The form of a request, made from the catalogue: one field for each parameter, checked while it
// is filled in. What is filled in lives in the entries; a form can be drawn from them anew.

import { announce, el, newId } from './dom.js';
import { applies, choiceText, convertEntry, entrySize, fault, fieldKind, givenOf, isEmpty,
    isRequired, likelyForm, neededBlocks, neededLength, neededText, offered, takesRandom,
    takesUpload, unusedText } from './entries.js';
import { errorTexts, warningText } from './host_texts.js';
import { capitalised, dataSize, sentence, t } from './i18n.js';
import { openSessions } from './memory.js';
import { randomBytes, toHex } from './values.js';

const HOW_TEXTS = { text: 'Text', hex: 'Hex', base64: 'Base64', file: 'File' };
const RANDOM_SIZES = [12, 16, 24, 32];  // where nothing tells the right one
const MOST_ROWS = 9;

// Radio buttons that look like one control. `options` are [value, text].
export function segments(label, options, chosen, onChoose) {
    const name = newId('segments');
    return el('div', { class: 'segments', role: 'radiogroup', 'aria-label': label },
        options.map(([value, text]) => {
            const id = newId('segment');
            return [
                el('input', { type: 'radio', name, id, value, class: 'visually-hidden',
                    checked: value === chosen, on: { change: () => onChoose(value) } }),
                el('label', { for: id }, text),
            ];
        }).flat());
}

function chip(text, onClick, title) {
    return el('button', { type: 'button', class: 'chip', title, on: { click: onClick } }, text);
}

// What a file field shows as chosen. A new field would else say that nothing is.
function fileList(file) {
    const transfer = new DataTransfer();
    transfer.items.add(file);
    return transfer.files;
}

// As high as its text, where the browser does not see to that itself.
function grow(area) {
    if (CSS.supports('field-sizing', 'content')) return;
    area.rows = 1;
    while (area.scrollHeight > area.clientHeight && area.rows < MOST_ROWS) area.rows += 1;
}

// One field. `form` is told of every change through form.changed().
class Field {
    constructor(parameter, form) {
        this.parameter = parameter;
        this.form = form;
        this.kind = fieldKind(parameter);
        this.checked = false;
        this.pasted = false;  // what stands in it, at one go
        this.refused = '';    // what the last answer has against it
        this.id = newId('field');
        this.control = el('div', { class: 'control' });
        this.foot = el('div', { class: 'field-foot' });
        this.size = el('span', { class: 'size', id: `${this.id}-size` });
        this.problem = el('p', { class: 'problem', id: `${this.id}-problem` });
        this.warning = el('p', { class: 'warning', id: `${this.id}-warning` });
        this.offer = el('p', { class: 'offer', role: 'status', data: { how: '' } });
        this.need = el('span', { class: 'need' });
        this.unused = el('p', { class: 'unused' });
        const [label, ...help] = sentence(parameter.meaning).split(/; |；/);
        this.help = el('p', { class: 'help', id: `${this.id}-help` }, capitalised(help.join('; ')));
        this.body = el('div', {}, this.control, this.foot, this.offer, this.problem, this.warning, this.help);
        const wide = this.kind !== 'choice' && this.kind !== 'number';
        this.element = el('div', { class: wide ? 'field wide' : 'field', data: { parameter: parameter.name } },
            el('div', { class: 'field-head' },
                el('label', { for: this.id }, label, ' ',
                    el('code', {}, parameter.name)),
                this.need),
            this.body, this.unused);
        this.draw();
    }

    get entry() {
        return this.form.entries.get(this.parameter.name);
    }

    set entry(entry) {
        this.form.entries.set(this.parameter.name, entry);
    }

    // Takes another value, from elsewhere than the keyboard.
    put(entry) {
        this.entry = entry;
        this.draw();
        this.form.changed(this);
    }

    // `way` is the browser's name of how the text came.
    typed(text, way = '') {
        this.entry = { how: this.entry.how, text, file: this.entry.file };
        this.pasted = /^insertFrom(Paste|Drop)/.test(way);
        this.form.changed(this);
    }

    // After a paste: the form that the text seems to be in, or ''.
    get offered() {
        return this.kind === 'bytes' && this.pasted ? likelyForm(this.entry) : '';
    }

    // Takes the same characters for what they seem to be.
    readAs(how) {
        this.pasted = false;
        this.put({ ...this.entry, how });
        this.input.focus();
    }

    drawOffer() {
        const how = this.offered;
        if (how === this.offer.dataset.how) return;
        this.offer.dataset.how = how;
        this.offer.replaceChildren(...(how === '' ? [] : [
            el('span', {}, t('This looks like {form}.', { form: t(HOW_TEXTS[how]) })),
            chip(t('Read it so'), () => this.readAs(how))]));
    }

    draw() {
        this.input = this.makeInput();
        this.input.id = this.id;
        this.control.replaceChildren(...[this.ways(), this.input, this.chosenFile()].filter(Boolean));
        this.drawChips();
    }

    // The chips follow the other values.
    drawChips() {
        this.chipsFor = this.needed()?.usual;
        this.foot.replaceChildren(this.size, ...this.chips());
    }

    needed() {
        return neededLength(this.form.request, this.parameter, this.form.valueOf);
    }

    ways() {
        let options = null;
        if (this.kind === 'bytes') options = Object.entries(HOW_TEXTS).map(([how, text]) => [how, t(text)]);
        if (takesUpload(this.parameter)) options = [['file', t('Upload')], ['text', t('Name on the host')]];
        if (options === null) return null;
        const label = t('How {parameter} is given', { parameter: this.parameter.name });
        return segments(label, options, this.entry.how, (how) => {
            // Who was told what it looks like, and chooses that, means the characters as they are.
            this.entry = how === this.offered ? { ...this.entry, how } : convertEntry(this.entry, how);
            this.pasted = false;
            this.draw();
            this.form.changed(this);
            this.control.querySelector('input:checked').focus();
        });
    }

    makeInput() {
        const { parameter, entry } = this;
        const onInput = { input: (event) => this.typed(event.target.value, event.inputType) };
        const plain = { autocomplete: 'off', spellcheck: 'false', autocapitalize: 'off' };
        if (this.kind === 'choice') return this.makeSelect();
        if (entry.how === 'file') {
            const input = el('input', { type: 'file', on: { change: () => this.choose(input.files[0]) } });
            if (entry.file !== null) input.files = fileList(entry.file);
            return input;
        }
        if (this.kind === 'number')
            return el('input', { ...plain, type: 'text', inputmode: 'numeric', value: entry.text, on: onInput,
                placeholder: parameter.default ?? '' });
        if (this.kind === 'password')
            return el('input', { ...plain, type: 'password', autocomplete: 'new-password', value: entry.text, on: onInput });
        if (this.kind === 'handle' || this.kind === 'path')
            return el('input', { ...plain, type: 'text', class: 'mono', value: entry.text, on: onInput });
        const area = el('textarea', { ...plain, rows: 1, class: entry.how === 'text' ? '' : 'mono', value: entry.text, on: onInput });
        requestAnimationFrame(() => grow(area));
        return area;
    }

    makeSelect() {
        const { parameter, entry } = this;
        const choices = offered(parameter);
        const standard = choices.find(({ value }) => value === parameter.default);
        let absent = parameter.required ? t('Choose…') : t('Not given');
        if (standard) absent = t('Not given: {value}', { value: choiceText(standard) });
        const select = el('select', { on: { change: (event) => this.typed(event.target.value) } },
            el('option', { value: '' }, absent),
            choices.map((row) => el('option', { value: row.value }, choiceText(row))));
        select.value = entry.text;
        return select;
    }

    chosenFile() {
        if (this.entry.how !== 'file' || this.entry.file === null) return null;
        const { name } = this.entry.file;
        return el('p', { class: 'chosen-file' }, el('span', { class: 'file-name' }, name),
            el('button', { type: 'button', class: 'chip', 'aria-label': t('Remove {file}', { file: name }), on: {
                click: () => {
                    this.put({ ...this.entry, file: null });
                    this.input.focus();
                },
            } }, t('Remove')));
    }

    // Who leaves the choice without a file keeps the one before.
    choose(file) {
        if (file) this.put({ how: 'file', text: '', file });
        else this.draw();
        this.input.focus();
    }

    chips() {
        const { parameter } = this;
        if (takesRandom(parameter)) {
            const draws = (text, size) => chip(text, () => {
                this.put({ how: 'hex', text: toHex(randomBytes(size)), file: this.entry.file });
                [...this.foot.querySelectorAll('.chip')].find((drawn) => drawn.textContent === text)?.focus();
                announce(t('{count} random bytes filled in', { count: size }));
            }, t('{count} random bytes', { count: size }));
            if (this.chipsFor !== undefined) return [draws(t('Random: {count} bytes', { count: this.chipsFor }), this.chipsFor)];
            return [el('span', { class: 'chips-label' }, t('Random bytes:')),
                ...RANDOM_SIZES.map((size) => draws(String(size), size))];
        }
        if (this.kind === 'handle')
            return openSessions().map((handle) =>
                chip(t('Use {session}', { session: handle.replace(/^(ke_(?:[a-z0-9-]+\.)?.{6}).*/, '$1…') }),
                    () => this.put({ how: 'text', text: handle, file: null }), handle));
        return [];
    }

    sizeText() {
        if (this.kind !== 'bytes' && this.entry.how !== 'file') return '';
        const needed = this.needed();
        if (isEmpty(this.entry)) return needed === null ? '' : neededText(needed);
        const size = entrySize(this.entry);
        return size === null ? '' : dataSize(size);
    }

    needText(used) {
        if (!used) return '';
        if (isRequired(this.parameter, this.form.valueOf)) return t('required');
        return t('optional');
    }

    // Shows what follows from the entries, this field's and the others'.
    refresh() {
        const used = applies(this.parameter, this.form.valueOf);
        this.body.hidden = !used;
        this.unused.hidden = used;
        this.element.classList.toggle('is-unused', !used);
        this.unused.textContent = used ? '' : unusedText(this.form.request, this.parameter, this.form.valueOf);
        this.need.textContent = this.needText(used);
        this.need.classList.toggle('is-required', isRequired(this.parameter, this.form.valueOf));
        if (this.needed()?.usual !== this.chipsFor) this.drawChips();
        this.size.textContent = this.sizeText();
        this.drawOffer();
        if (this.input.tagName === 'TEXTAREA') grow(this.input);

        const found = this.fault();
        // Nothing is said of a field that is still to be filled in, before it is to be sent.
        const shown = found !== null && (this.checked || !isEmpty(this.entry));
        this.problem.textContent = shown ? found.text : this.refused;
        const wrong = this.problem.textContent !== '';
        this.input.setAttribute('aria-invalid', String(wrong));
        this.input.setAttribute('aria-required', String(isRequired(this.parameter, this.form.valueOf)));
        const notes = [this.help, this.problem, this.warning, this.size].filter((note) => note.textContent !== '');
        this.input.setAttribute('aria-describedby', notes.map((note) => note.id).join(' '));
        this.element.classList.toggle('is-wrong', wrong);
    }

    // What is wrong, also where it is not shown yet.
    fault() {
        if (!applies(this.parameter, this.form.valueOf)) return null;
        const { request, valueOf } = this.form;
        return fault(this.parameter, this.entry, valueOf, this.needed(), neededBlocks(request, this.parameter, valueOf));
    }
}

export class RequestForm {
    // `onChange` is called after each change of a value.
    constructor(request, entries, onChange) {
        this.request = request;
        this.entries = entries;
        this.onChange = onChange;
        this.valueOf = (name) => this.entries.get(name)?.text ?? '';
        for (const parameter of request.parameters)
            if (takesUpload(parameter) && isEmpty(entries.get(parameter.name)))
                entries.set(parameter.name, { how: 'file', text: '', file: null });
        this.fields = request.parameters.map((parameter) => new Field(parameter, this));
        this.element = el('div', { class: 'fields' }, this.fields.map((field) => field.element));
        this.refresh();
    }

    refresh() {
        for (const field of this.fields) field.refresh();
    }

    changed(field) {
        field.warning.textContent = '';
        field.refused = '';
        this.refresh();
        this.onChange();
    }

    // [{field, text, stops}], in the order of the fields; from now on they are shown.
    check() {
        for (const field of this.fields) field.checked = true;
        this.refresh();
        return this.fields
            .map((field) => ({ field, ...field.fault() }))
            .filter((found) => found.text !== undefined);
    }

    // The fields that take part in the call: used, and not empty.
    given() {
        return givenOf(this.request, this.entries);
    }

    // Whether each value stands for something.
    isSendable() {
        return this.fields.every((field) => !field.fault()?.stops);
    }

    // Marks the field that an error names, until it changes; null marks none.
    showError(error) {
        for (const field of this.fields)
            field.refused = error !== null && field.parameter.name === error.field ? capitalised(errorTexts(error).text) : '';
        this.refresh();
    }

    // Puts the host's warnings at their fields.
    showWarnings(warnings) {
        for (const field of this.fields) field.warning.textContent = '';
        for (const warning of warnings) {
            const field = this.fields.find((candidate) => candidate.parameter.name === warning.field);
            // What the form itself says of the field is enough.
            if (field && field.problem.textContent === '') field.warning.textContent = warningText(warning);
        }
        this.refresh();
    }

    focusFirst() {
        this.fields.find((field) => !field.body.hidden)?.input.focus();
    }

    focus(name) {
        this.fields.find((field) => field.parameter.name === name)?.input.focus();
    }
}
