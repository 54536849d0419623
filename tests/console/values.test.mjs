// The functions that need no page: bytes and their texts, entries, command lines.

import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { describe, test } from 'node:test';

import { curlLine, hostLine, quote } from '../../devkit/console/command_lines.js';
import { applies, convertEntry, entryValue, fault, isRequired } from '../../devkit/console/entries.js';
import { fromBase64, fromEscaped, fromHex, resultBytes, textOf, toBase64, toHex, toUrlBase64, utf8 } from '../../devkit/console/values.js';

const list = (bytes) => bytes && [...bytes];
const text = (value) => ({ how: 'text', text: value, file: null });
const hex = (value) => ({ how: 'hex', text: value, file: null });
const base64 = (value) => ({ how: 'base64', text: value, file: null });
const file = (name, ...bytes) => ({ how: 'file', text: '', file: { name, bytes: Uint8Array.from(bytes) } });
const bytesParameter = { name: 'strdata', form: 'base64', required: true, meaning: 'the data' };
const textParameter = { name: 'strIn', form: 'text', required: true, meaning: 'the bytes' };
const noValues = () => '';

describe('Values', () => {
    test('Base64 is read in either alphabet, padded or not, with blanks', () => {
        for (const written of ['-_8=', '-_8', '+/8=', '+/8', ' +/\n8 '])
            assert.deepEqual(list(fromBase64(written)), [0xfb, 0xff], written);
        assert.deepEqual(list(fromBase64('')), []);
    });

    test('Base64 that is cut, badly padded or has foreign characters is refused', () => {
        for (const written of ['A', 'AAAAA', 'AA=', 'AAA==', 'AB', 'A%AA', 'AAAA=', '=', 'AA==AA=='])
            assert.equal(fromBase64(written), null, written);
    });

    test('The URL-safe alphabet is that of the API', () => {
        assert.equal(toUrlBase64(Uint8Array.of(0xfb, 0xff)), '-_8=');
    });

    test('All byte values survive Base64 and hex', () => {
        const all = Uint8Array.from({ length: 256 }, (_, i) => i);
        assert.deepEqual(list(fromBase64(toBase64(all))), list(all));
        assert.deepEqual(list(fromHex(toHex(all))), list(all));
        assert.equal(toBase64(all), Buffer.from(all).toString('base64'));
    });

    test('Long values are encoded whole', () => {
        const long = new Uint8Array(100001).fill(7);
        assert.equal(toBase64(long), Buffer.from(long).toString('base64'));
    });

    test('Hex takes blanks and colons, and refuses half bytes', () => {
        assert.deepEqual(list(fromHex('00:fF 10\n')), [0, 255, 16]);
        assert.equal(fromHex('0'), null);
        assert.equal(fromHex('0g'), null);
    });

    test('Twice-escaped bytes are unescaped twice', () => {
        assert.deepEqual(list(fromEscaped('a%2520%25E6%25A1%25A5')), list(utf8('a 桥')));
        assert.equal(fromEscaped('%2'), null);
        assert.equal(fromEscaped('%252'), null);
    });

    test('Bytes that are not UTF-8 are no text', () => {
        assert.equal(textOf(Uint8Array.of(0xff)), null);
        assert.equal(textOf(utf8('桥')), '桥');
    });

    test('Results are read by their form', () => {
        assert.deepEqual(list(resultBytes('base64', 'AP8=')), [0, 255]);
        assert.deepEqual(list(resultBytes('text', 'a')), [97]);
        assert.deepEqual(list(resultBytes('text', { base64: '/w==' })), [255]);
        assert.equal(resultBytes('base64', 'A'), null);
    });
});

describe('Entries', () => {
    test('Bytes go as bytes, texts of text parameters as they are', () => {
        assert.deepEqual(entryValue(bytesParameter, text('hi')), { text: 'hi' });
        // Half of a character is none: the host takes UTF-8.
        assert.deepEqual(entryValue(bytesParameter, text('\ud800')), { text: '\ufffd' });
        assert.equal(entryValue(textParameter, text('hi')), 'hi');
        assert.deepEqual(entryValue(textParameter, hex('FF 00')), { hex: 'ff00' });
        assert.deepEqual(entryValue(bytesParameter, base64('_w')), { base64: '/w' });
        assert.deepEqual(entryValue(bytesParameter, file('x', 1, 2)), { base64: 'AQI=' });
    });

    test('Half a hex byte stands for nothing; what is not Base64 is sent raw', () => {
        assert.equal(entryValue(bytesParameter, hex('0')), null);
        assert.deepEqual(entryValue(bytesParameter, base64('%')), { raw: '%' });
    });

    test('Faults say what is wrong', () => {
        const said = (parameter, entry) => fault(parameter, entry, noValues)?.text;
        const length = { name: 'OutLen', form: 'text', required: true, range: [0, 65535], meaning: '' };
        assert.equal(said(length, text('65535')), undefined);
        assert.equal(said(length, text('65536')), 'Must be 0 to 65535; it is 65536.');
        assert.equal(said(length, text('a')), 'Must be a whole number from 0 to 65535.');
        assert.equal(said(length, text('')), 'Required, and still empty.');
        assert.equal(said(bytesParameter, hex('0g')), '“g” is not a hex digit.');
        assert.equal(said(bytesParameter, base64('a%aa')), '“%” is not a Base64 character.');
        assert.equal(said(bytesParameter, base64('aaaaa')), 'This Base64 text is cut or ends wrongly.');
        assert.equal(said({ ...bytesParameter, bytes: 16 }, hex('00')), 'Must have 16 bytes; it has 1.');
        assert.equal(said({ ...bytesParameter, required: false }, text('')), undefined);
        const path = { name: 'strCa_file', form: 'path', required: true, meaning: '' };
        assert.equal(said(path, text('roots/a.pem')), undefined);
        assert.match(said(path, text('/etc/passwd')), /without “\/”/);
        assert.match(said(path, text('a/../b')), /“\.\.”/);
    });

    test('Conditions of the catalogue decide what is required and what is used', () => {
        const iv = { name: 'strIV', required: false, requiredWhen: { parameter: 'strMode', isNot: '1' } };
        const tag = { name: 'strtag', required: false, requiredWhen: { parameter: 'strMode', is: '6' } };
        const mode = (value) => () => value;
        assert.deepEqual(['1', '2', '6'].map((value) => isRequired(iv, mode(value))), [false, true, true]);
        assert.deepEqual(['1', '2', '6'].map((value) => applies(tag, mode(value))), [false, false, true]);
    });

    test('A change of form keeps the bytes where they can be shown', () => {
        assert.equal(convertEntry(text('hi'), 'hex').text, '6869');
        assert.equal(convertEntry(hex('6869'), 'base64').text, 'aGk=');
        assert.equal(convertEntry(hex('ff'), 'text').text, '');
        assert.equal(convertEntry(hex('zz'), 'text').text, '');
    });
});

describe('CommandLines', () => {
    // What a shell makes of a word.
    const shell = (word) => execFileSync('bash', ['-c', `printf '%s\\0' ${word}`]).toString();

    test('Every text survives the shell', () => {
        for (const value of ['', 'a b', "it's", '"$HOME" `id` \\ !! *', 'line\nline', 'tab\tesc\u001b[0m', '桥\u0085', "\\'\u0007", '-n', '~', '#a', 'a=b'])
            assert.equal(shell(quote(value)), `${value}\0`, JSON.stringify(value));
    });

    test('curl sends files as files, and all else as JSON', () => {
        const plain = curlLine('http://h:1', 'R', [{ parameter: textParameter, entry: text("it's") }]);
        assert.match(plain, /--data-raw '\{"strIn":"it'\\''s"\}'$/);
        assert.match(plain, /Bearer \$TOKEN"/);
        const upload = curlLine('http://h:1', 'R', [
            { parameter: bytesParameter, entry: file('a "b".bin', 1) },
            { parameter: textParameter, entry: text('@x') },
        ]);
        assert.match(upload, /-F 'strdata=@".\/a \\"b\\".bin"'/);
        assert.match(upload, /--form-string strIn=@x$/);
    });

    test('The token of a session is in a header too, if it can be one', () => {
        const parameter = { name: 'strKe', form: 'handle', need: 'always', allowed: null };
        const line = (token) => curlLine('http://h:1', 'R', [{ parameter, entry: text(token) }]);
        assert.match(line('ke_a.Fl2Y'), / -H 'X-Corvane-Session: ke_a\.Fl2Y' \\\n.*\{"strKe":"ke_a\.Fl2Y"\}'$/s);
        for (const odd of ['', '140', 'ke_a b', 'ke_a\r\nHost: x', 'ke_桥'])
            assert.doesNotMatch(line(odd), /X-Corvane-Session/, odd);
    });

    test('A file beside a text for Base64 sends both in a form; a raw value needs JSON', () => {
        const line = (entry) => curlLine('http://h:1', 'R', [
            { parameter: { ...bytesParameter, name: 'strKey' }, entry },
            { parameter: bytesParameter, entry: file('a', 1) },
        ]);
        assert.match(line(text('桥')), /--form-string strKey=5qGl \\\n {2}-F /);
        assert.match(line(base64('A%')), /--data-raw '\{"strKey":\{"raw":"A%"\},"strdata":\{"base64":"AQ=="\}\}'$/);
    });

    test('A file beside bytes that no form can carry goes as JSON', () => {
        const line = curlLine('http://h:1', 'R', [
            { parameter: bytesParameter, entry: file('a', 1) },
            { parameter: textParameter, entry: hex('ff') },
        ]);
        assert.match(line, /--data-raw '\{"strdata":\{"base64":"AQ=="\},"strIn":\{"hex":"ff"\}\}'$/);
    });

    test('corvane-host gets texts that look like its own forms guarded', () => {
        const line = (parameter, entry) =>
            hostLine({ name: 'R', parameters: [] }, [{ parameter, entry }]).split('\\\n  ')[1];
        assert.equal(line(textParameter, text('b64:x')), 'strIn=text:b64:x');
        assert.equal(line(textParameter, text('@x')), 'strIn=text:@x');
        assert.equal(line(textParameter, text('raw:x')), 'strIn=text:raw:x');
        assert.equal(line(bytesParameter, text('@x')), 'strdata=text:@x');
        assert.equal(line(bytesParameter, text('hex:00')), 'strdata=text:hex:00');
        assert.equal(line(bytesParameter, text('a\0')), "strdata=b64:@<(printf %s YQA= | base64 -d)");
        assert.equal(line(bytesParameter, base64('A%')), 'strdata=raw:A%');
        assert.equal(line(bytesParameter, base64('@A')), 'strdata=raw:text:@A');
        assert.equal(line(bytesParameter, hex('00 FF')), 'strdata=hex:00FF');
        assert.equal(line(bytesParameter, base64('+/8')), 'strdata=-_8=');
        assert.equal(line(bytesParameter, file('-')), 'strdata=b64:@./-');
        assert.equal(line(textParameter, hex('ff')), "strIn=@<(printf %s /w== | base64 -d)");
    });

    test('Requests of a session have no line of their own', () => {
        assert.equal(hostLine({ name: 'R', parameters: [{ form: 'handle' }] }, []), null);
    });
});
