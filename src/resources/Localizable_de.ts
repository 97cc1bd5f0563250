<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de">
<context>
    <name>Localizable</name>
    <message>
        <source>OK_BUTTON</source>
        <translation>OK</translation>
    </message>
    <message>
        <source>OK</source>
        <translation>OK</translation>
    </message>
    <message>
        <source>PUBLISH</source>
        <translation>Veröffentlichen</translation>
    </message>
    <message>
        <source>PUBLISH_VIDEO</source>
        <translation>Video veröffentlichen</translation>
    </message>
    <message>
        <source>TITLE</source>
        <translation>Titel</translation>
    </message>
    <message>
        <source>DESCRIPTION</source>
        <translation>Beschreibung</translation>
    </message>
    <message>
        <source>CATEGORY</source>
        <translation>Kategorie</translation>
    </message>
    <message>
        <source>TAGS</source>
        <translation>Schlagwörter</translation>
    </message>
    <message>
        <source>NEW_TAG</source>
        <translation>Neues Schlagwort</translation>
    </message>
    <message>
        <source>HD</source>
        <translation>HD</translation>
    </message>
    <message>
        <source>STANDARD_DEFINITION</source>
        <translation>Standard</translation>
    </message>
    <message>
        <source>SIZE_FORMAT_PARENS</source>
        <translation>(%1)</translation>
    </message>
    <message>
        <source>ACCOUNT_NAME_FORMAT</source>
        <translation>Angemeldet als %1</translation>
    </message>
    <message>
        <source>ACCOUNT_BLANK</source>
        <translation>Nicht angemeldet</translation>
    </message>
    <message>
        <source>AUTHENTICATION_FAILED_TITLE</source>
        <translation>Anmeldung fehlgeschlagen</translation>
    </message>
    <message>
        <source>AUTHENTICATION_FAILED_BODY</source>
        <translation>Benutzername oder Passwort sind falsch. Bitte versuchen Sie es erneut.</translation>
    </message>
    <message>
        <source>TERMS_OF_USE</source>
        <translation>Nutzungsbedingungen</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_SIGN_IN_AGAIN</source>
        <translation>Der Dienst akzeptiert Ihre Anmeldung nicht mehr. Bitte melden Sie sich erneut an und veröffentlichen Sie noch einmal.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_QUOTA_OR_RATE_LIMIT</source>
        <translation>Der Dienst hat eine Grenze für Ihr Konto erreicht. Bitte versuchen Sie es später noch einmal.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_INVALID_FIELD</source>
        <translation>Der Dienst hat das Feld „%1“ nicht akzeptiert. Bitte korrigieren Sie es und veröffentlichen Sie erneut.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_FILE_TOO_LARGE</source>
        <translation>Das Video ist größer, als der Dienst annimmt. Bitte wählen Sie einen kürzeren Clip oder eine niedrigere Qualität.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_FILE_CHANGED_OR_UNREADABLE</source>
        <translation>Das Video wurde geändert oder kann nicht mehr gelesen werden und wurde daher nicht veröffentlicht.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_NETWORK</source>
        <translation>Die Verbindung zum Dienst ist abgebrochen. Bitte prüfen Sie Ihr Netzwerk und versuchen Sie es erneut.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_SERVICE_FAILURE</source>
        <translation>Der Dienst kann das Video gerade nicht annehmen. Bitte versuchen Sie es später noch einmal.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_CANCELLED</source>
        <translation>Die Veröffentlichung wurde abgebrochen.</translation>
    </message>
</context>
</TS>
