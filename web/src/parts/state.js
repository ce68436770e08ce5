// What stands in a view's place while there is nothing to show: loading, an error, or nothing yet with what to do next.
import { html } from '../html.js';

export function State({ answer, empty, children }) {
  if (answer.error) {
    return html`<div class="state" role="alert"><p>${answer.error.message}</p>
      ${answer.error.status === 401 && html`<p><a href="/login" target="_self">Log in again</a></p>`}
      ${answer.error.status === 503 && html`<p>Send a request to an application with the agent loaded, and look again; <code>quorbit status</code> says what to check when nothing comes.</p>`}</div>`;
  }
  if (!answer.data) return html`<p class="state" role="status">Loading …</p>`;
  if (empty) return html`<div class="state">${empty}</div>`;
  return children;
}
