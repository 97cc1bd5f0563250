<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="fr">
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
        <translation>Publier</translation>
    </message>
    <message>
        <source>CANCEL</source>
        <translation>Annuler</translation>
    </message>
    <message>
        <source>PUBLISH_VIDEO</source>
        <translation>Publier la vidéo</translation>
    </message>
    <message>
        <source>TITLE</source>
        <translation>Titre</translation>
    </message>
    <message>
        <source>DESCRIPTION</source>
        <translation>Description</translation>
    </message>
    <message>
        <source>CATEGORY</source>
        <translation>Catégorie</translation>
    </message>
    <message>
        <source>TAGS</source>
        <translation>Mots-clés</translation>
    </message>
    <message>
        <source>NEW_TAG</source>
        <translation>Nouveau mot-clé</translation>
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
        <translation>Connecté en tant que %1</translation>
    </message>
    <message>
        <source>ACCOUNT_BLANK</source>
        <translation>Non connecté</translation>
    </message>
    <message>
        <source>AUTHENTICATION_FAILED_TITLE</source>
        <translation>Échec de la connexion</translation>
    </message>
    <message>
        <source>AUTHENTICATION_FAILED_BODY</source>
        <translation>Le nom d’utilisateur ou le mot de passe est incorrect. Veuillez réessayer.</translation>
    </message>
    <message>
        <source>TERMS_OF_USE</source>
        <translation>Conditions d’utilisation</translation>
    </message>
    <message>
        <source>USER_NAME</source>
        <translation>Nom d’utilisateur</translation>
    </message>
    <message>
        <source>PASSWORD</source>
        <translation>Mot de passe</translation>
    </message>
    <message>
        <source>KEY_SHIFT</source>
        <translation>Majuscule</translation>
    </message>
    <message>
        <source>KEY_DELETE</source>
        <translation>Effacer</translation>
    </message>
    <message>
        <source>KEY_COMMA</source>
        <translation>Virgule</translation>
    </message>
    <message>
        <source>KEY_SPACE</source>
        <translation>Espace</translation>
    </message>
    <message>
        <source>KEY_RETURN</source>
        <translation>Retour</translation>
    </message>
    <message>
        <source>KEY_SPLIT</source>
        <translation>Scinder le clavier</translation>
    </message>
    <message>
        <source>REQUIRES_WIFI</source>
        <translation>Wi-Fi requis</translation>
    </message>
    <message>
        <source>LIST_POSITION_FORMAT</source>
        <translation>%1 sur %2</translation>
    </message>
</context>
</TS>
