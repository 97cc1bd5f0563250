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
        <source>USER_NAME</source>
        <translation>Benutzername</translation>
    </message>
    <message>
        <source>PASSWORD</source>
        <translation>Passwort</translation>
    </message>
    <message>
        <source>KEY_SHIFT</source>
        <translation>Umschalt</translation>
    </message>
    <message>
        <source>KEY_DELETE</source>
        <translation>Löschen</translation>
    </message>
    <message>
        <source>KEY_COMMA</source>
        <translation>Komma</translation>
    </message>
    <message>
        <source>KEY_SPACE</source>
        <translation>Leerzeichen</translation>
    </message>
    <message>
        <source>KEY_RETURN</source>
        <translation>Eingabe</translation>
    </message>
    <message>
        <source>KEY_SPLIT</source>
        <translation>Tastatur teilen</translation>
    </message>
    <message>
        <source>REQUIRES_WIFI</source>
        <translation>erfordert WLAN</translation>
    </message>
    <message>
        <source>LIST_POSITION_FORMAT</source>
        <translation>%1 von %2</translation>
    </message>
</context>
</TS>
