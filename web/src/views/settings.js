// What each application was given, as its last configuration query was answered. Read-only: applications.conf sets it.
import { useQuestion } from '../data.js';
import { html } from '../html.js';
import { time } from '../format.js';
import { Scroll } from '../parts/scroll.js';
import { State } from '../parts/state.js';
import { address } from '../router.js';

const LIVE_MS = 30000;

function Given({ application: { name, given, last_query: asked, php_version: version, sapi } }) {
  const settings = Object.entries(given ?? {});
  return html`<section><h2>${name || '(no name)'}</h2>
    <p class="dim">${asked ? html`A process asked at ${time(asked)}${version && html`; PHP ${version}, ${sapi}`}.` : 'No process of it has asked yet: each asks at its first request, and then once a minute.'}</p>
    ${settings.length > 0 ? html`<${Scroll} label=${`Settings of ${name}`}><table class="narrow"><thead><tr><th>Setting</th><th>Value</th></tr></thead><tbody>${settings.map(([key, value]) => html`<tr key=${key}><td class="name">${key}</td><td class="text">${String(value)}</td></tr>`)}</tbody></table><//>`
    : asked && html`<p>It was given nothing: php.ini's settings hold.</p>`}</section>`;
}

export function Settings({ parameters: { app } }) {
  const answer = useQuestion('status', {}, LIVE_MS);
  const applications = (answer.data?.applications ?? []).filter(({ name }) => !app || name === app);
  return html`<div class="title"><h1>Settings</h1>${app && html`<a class="chip" href=${address('/settings')} aria-label=${`${app}: show all applications`}>${app} ×</a>`}</div>
    <${State} answer=${answer} empty=${applications.length === 0 && html`<p>No application is known yet.</p><p>Send a request to one with the agent loaded. <code>quorbit status</code> says what to check when nothing comes.</p>`}>
      <p>What the daemon last gave each application. The file <code>applications.conf</code> beside the store sets it; processes take a change over within a minute.</p>
      ${applications.map(application => html`<${Given} key=${application.name} application=${application} />`)}<//>`;
}
